// The platform's tool that keeps the list of those who are kept out of the servers.
#pragma once

#include <string>
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

// Who has asked: the user of the session, or root on the command line.
[[nodiscard]] std::string asker(const Request& request);

}  // namespace ormel::cgi::hold
