// The description of a route, with the lines that a program can read:
//
//   = NAME TYPE [DEFAULT][: TEXT]
//   > TYPE [NUMBER...]
//
// The first is a variable: TYPE is string, integer or file, a "*" at the end of NAME says that it
// may be repeated, a "?" that it may be missing, as one with a DEFAULT may. The name "*" alone
// stands for the variables of a profile. The second is the type of "data" in the answer (array,
// object or any) with the names of numbers beside it, or "file" and its media type.
#pragma once

#include "texts.h"

namespace manual {

struct Variable {
  std::string name, type, fallback{}, text{};
  bool repeated = false, optional = false;
};

struct RouteText {
  std::vector<std::string> lines;   // as the page shows them
  std::vector<std::string> prose;   // the same less the variables
  std::vector<Variable> variables;  // "*" as the page has it, too
  std::string answer;               // "array", "object", "any", "file", or empty for none
  std::vector<std::string> more;    // numbers beside the data, or the media type of a file
};

// Reports what is malformed.
[[nodiscard]] RouteText route_text(const Entry& entry);

}  // namespace manual
