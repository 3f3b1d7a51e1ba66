// The descriptions that the program's tables have no use for themselves, in files that are easy to
// edit:
//
//   @ KEY
//   @ KEY | DETAIL
//   The text in scdoc's notation, up to the next entry.
//
// A row of a table without an entry, or an entry without a row, fails the build.
#pragma once

#include <list>
#include <map>
#include <string>
#include <vector>

namespace manual {

struct Entry {
  std::string key;
  std::string detail;  // empty for none
  std::vector<std::string> lines;
  bool used = false;
};

class Texts {
 public:
  Texts() = default;
  explicit Texts(const std::string& path);

  // Null when there is none; otherwise it counts as used.
  const Entry* find(const std::string& key);
  // The same, and a failure when there is none: an empty entry.
  const Entry& of(const std::string& key);
  // A failure for each entry that nobody has used.
  void check_all_used() const;

 private:
  std::string path_;
  std::list<Entry> entries_;
  std::map<std::string, Entry*> by_key_;
};

// Reports on standard error what is wrong; the program goes on, to find all of it, and ends with a
// failure.
void fail(const std::string& what);
[[nodiscard]] bool has_failed();

// The text as scdoc shows it unchanged.
[[nodiscard]] std::string literal(const std::string& text);
// All lines as one.
[[nodiscard]] std::string joined(const std::vector<std::string>& lines);
// The parts of a text between those that `mark` parts.
[[nodiscard]] std::vector<std::string> split(const std::string& text, char mark);

}  // namespace manual
