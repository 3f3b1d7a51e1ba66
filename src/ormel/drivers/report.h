// The report on a foreign profile before it is imported: what becomes of each line of it.
//
// A fate is found, not declared: the profile is rewritten as an import does it, the reader of
// foreign profiles makes the copy that the tunnel's daemon would get, and both are compared with
// the source. Only the explanations come from tables. Nothing is stored.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "ormel/base/handle.h"

namespace ormel::report {

// Kept: the same bytes are in the stored profile, and the daemon gets them. Changed: there in
// another form. Dropped: not stored, or not given to the daemon. Refused: for this line the profile
// is not imported, or its tunnel does not start. Needs: names something that did not come with the
// profile.
enum class Fate { Kept, Changed, Dropped, Refused, Needs };

// A line, or all lines of a block.
struct Line {
  std::size_t first = 0, last = 0;  // numbers, from 1
  std::string text{};               // without secrets
  Fate fate = Fate::Dropped;
  std::string why{};   // empty for a line that is kept
  bool blank = false;  // a comment, or empty
};

struct Server {
  std::string host{}, port{}, protocol{};
};

struct Certificate {
  std::string role{};  // the option that holds it
  std::string subject{};
  long days = 0;  // left; negative after its end
};

// What the daemon says of the profile.
struct Verdict {
  bool asked = false;  // it is not, while files are missing
  bool accepts = false;
  std::size_t line = 0;  // of the source; 0 for none
  std::string option{};  // the one that is refused, if the daemon names it
  std::string reason{};
};

struct Report {
  std::vector<Line> lines{};
  std::vector<std::string>
      added{};  // options that the daemon gets though the profile does not name them
  std::vector<Server> servers{};
  std::vector<std::string> needs{};  // "user", "pass", or the option of a file
  std::vector<Certificate> certificates{};
  Verdict daemon{};
  int error = 0;         // of the import, 0 when the profile can be imported
  std::string reason{};  // in words
  std::string stored{};  // what an import would store

  [[nodiscard]] std::size_t count(Fate fate) const;
};

[[nodiscard]] const char* name_of(Fate fate);
// "ca" from "<ca> (1704 bytes)"; texts of others stay. The report as a document.
[[nodiscard]] Json document_of(const Report& report);

}  // namespace ormel::report
