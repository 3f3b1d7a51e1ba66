// The few questions that requests are asked.
// Callers see "absent" and "wrong type" alike unless they ask for more.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <jansson.h>

#include "base/json_handle.h"

namespace fenro {

inline constexpr std::size_t REQUEST_MAX =
    64UL * 1024;  // what most daemons are asked is below 2 KiB

// A request's object. No body at all reads as an empty object; null for anything but an object, or
// more than `limit`.
[[nodiscard]] Json parse_request(std::string_view body, std::size_t limit = REQUEST_MAX);

// The text under `key`, or null.
[[nodiscard]] const char* text_or_null(const json_t* object, const char* key);

// Text as a JSON value; bytes that are not UTF-8 become U+FFFD, as a JSON text cannot hold them.
[[nodiscard]] Json json_text(std::string_view text);

// The reply to a request: {"error":ERROR,"data":DATA}, on one line.
[[nodiscard]] std::string reply_text(int error, Json data);

// The value on one line, without blanks.
[[nodiscard]] std::string compact(const json_t* value);

}  // namespace fenro
