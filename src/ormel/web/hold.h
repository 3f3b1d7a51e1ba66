// Runs the platform's tool that keeps the list of users and devices barred from the servers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ormel/base/handle.h"
#include "ormel/web/serve.h"

namespace ormel::cgi::hold {

constexpr int NOT_FOUND = 3;  // exit status of the tool

// Runs the tool with these words. Returns its exit status.
[[nodiscard]] int run(std::vector<std::string> words, std::string* output = nullptr);

// Whether there is a list at all: without one, no one is kept out.
[[nodiscard]] bool has_list();

// What the tool lists for "list" or "limits": an array; null when it fails.
[[nodiscard]] Json rows(const char* action);

// What such an array says: until when a "user" or "peer" is kept out, and from when on a device is.
// 0 when it is not listed, or without an array.
[[nodiscard]] int64_t until(const json_t* holds, std::string_view kind, const std::string& who);
[[nodiscard]] int64_t limit_of(const json_t* limits, const std::string& key);
// Who has asked for a device's limit; empty for a device without one.
[[nodiscard]] std::string limiter_of(const json_t* limits, const std::string& key);

// Who has asked: the user of the session, or root on the command line.
[[nodiscard]] std::string asker(const Request& request);

}  // namespace ormel::cgi::hold
