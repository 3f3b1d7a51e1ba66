// The friendly command line, sessions of the web interface, and what both answer in JSON.
#pragma once

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <jansson.h>

#include "ormel/base/handle.h"
#include "support/appliance_host.h"

namespace ormel::test {

inline std::vector<std::string> words_of(const std::string& line) {
  std::istringstream in(line);
  return {std::istream_iterator<std::string>(in), {}};
}

// The words as they are typed, none with a space in it.
inline Result ctl(const std::string& line, const std::string& input = {}) {
  return ctl(words_of(line), input);
}

// The same, which ends with this status.
inline Result ended(int status, const std::string& line, const std::string& input = {}) {
  Result result = ctl(line, input);
  EXPECT_EQ(result.status, status) << line << '\n' << result.out << result.err;
  return result;
}

inline Result done(const std::string& line, const std::string& input = {}) {
  return ended(0, line, input);
}

// The keys of the devices that may connect.
inline std::string wireguard_peers() {
  return run({"/usr/bin/wg", "show", "wg0", "peers"}).out;
}

inline Json parsed(const std::string& text) {
  return Json{json_loads(text.c_str(), 0, nullptr)};
}

// The code of an answer; -1 for what is none.
inline int error_of(const std::string& answer) {
  const Json root = parsed(answer);
  const json_t* const error = json_object_get(root.get(), "error");
  return json_is_integer(error) ? static_cast<int>(json_integer_value(error)) : -1;
}

// A text as it is, other values as they are written.
inline std::string text_of(const json_t* value) {
  const CString text{json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY)};
  return json_is_string(value) ? json_string_value(value) : text ? text.get() : "";
}

// A member of an answer, as text: of its data, or of another object of it.
inline std::string datum(const std::string& answer, const char* name, const char* object = "data") {
  const Json root = parsed(answer);
  const json_t* const inner = json_object_get(root.get(), object);
  return text_of(json_object_get(inner ? inner : root.get(), name));
}

}  // namespace ormel::test
