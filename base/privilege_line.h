// A line of the store of users' rights, "name:1:0:1:0:0": a field for each server, in the order of
// RIGHTS.
#pragma once

#include <cstdlib>
#include <string>
#include <string_view>

#include "base/tunnel.h"

namespace ormel {

// The rights in the fields after the name, as a mask of servers. Each field is a number, and any
// but 0 is a right; fields that are missing count as 0.
[[nodiscard]] inline int rights_in(std::string_view fields) {
  std::string text{fields};
  for (char& c : text) c = c == ':' ? ' ' : c;
  int mask = NONE_TYPE;
  const char* at = text.c_str();
  for (const TYPE right : RIGHTS) {
    char* end = nullptr;
    if (std::strtol(at, &end, 10) != 0) mask |= right;
    if (end == at) break;
    at = end;
  }
  return mask;
}

}  // namespace ormel
