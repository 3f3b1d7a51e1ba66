// An owner for parsed JSON, and the few questions that requests are asked.
// Callers see "absent" and "wrong type" alike unless they ask for more.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <jansson.h>

namespace fenro::networkd {

// json_decref is a static inline: as a template argument it would make a different type in every source.
struct FreeJson {
  void operator()(json_t* value) const noexcept { json_decref(value); }
};
using Json = std::unique_ptr<json_t, FreeJson>;

// A request's object. No body at all reads as an empty object; null for anything but an object, or too much of it.
[[nodiscard]] Json parse_request(std::string_view body);

// The text under `key`, or null.
[[nodiscard]] const char* text_or_null(const json_t* object, const char* key);

// Text as a JSON value; bytes that are not UTF-8 become "?", as a JSON text cannot hold them.
[[nodiscard]] Json json_text(std::string_view text);

// The value on one line, without blanks.
[[nodiscard]] std::string compact(const json_t* value);

}  // namespace fenro::networkd
