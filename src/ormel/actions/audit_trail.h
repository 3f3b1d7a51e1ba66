// The audit trail on disk: one row for each change, chained so that a row that is altered or
// removed later shows.
//
// The folder has files NNNNNNNNNNNN.jsonl, named by the number of their first row. A row is one
// line of JSON:
//   {"hash":"64 hexadecimal digits","n":17,"time":SECONDS,"user":"anna","via":"web","ip":"…",
//    "action":"gateway/set","subject":"…","changes":[{"field":"…","from":"…","to":"…"}],"error":0}
// "hash" is the SHA-256 of the previous row's hash followed by this line after `"hash":"…",`. The
// first row of a file repeats the previous row's hash as "previous", so that the chain can be
// followed from any file on. A row that follows the rest of one whose writer was killed has
// "torn", the length of that rest; one that follows changes which could not be recorded has
// "lost", their number.
//
// Rows are numbered from 1. The oldest file goes when there are more than Limits::files. Only root
// can rewrite the trail, and a root that rewrites all rows to its end leaves no sign: keep a copy
// of the last hash elsewhere where that matters.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace ormel::audit {

struct Limits {
  int64_t file_rows = 10000;
  size_t files = 20;
};
constexpr int64_t MOST_FILE_BYTES = int64_t{16} << 20;
constexpr size_t MOST_CHANGES = 60;   // of one row; the last one says how many are left out
constexpr size_t LONGEST_TEXT = 200;  // bytes of one value

// One field that is different after an action. A secret has no values: `to` is "changed".
struct Change {
  std::string field{}, from{}, to{};
};

struct Entry {
  int64_t number = 0;  // set by the trail
  int64_t time = 0;    // seconds since 1970
  std::string user{};  // who has asked; empty for a request without a session
  std::string via{};   // "web", or the program with its terminal
  std::string ip{};    // where the request came from, empty on the host itself
  std::string action{};
  std::string subject{};
  std::vector<Change> changes{};
  int error = 0;     // code of the result
  int64_t lost = 0;  // changes before this one that could not be recorded
};

// Which rows are wanted.
struct Query {
  int64_t lower = 0, upper = 0;  // rows of those that match, counted from 0, both included
  std::string user{};            // empty for all
  int64_t since = 0;             // seconds since 1970, 0 for all
  bool oldest_first = false;
};

struct Page {
  std::vector<Entry> entries{};
  int64_t total = 0;  // of those that match
};

// What a walk along the chain has found.
struct Verdict {
  int64_t entries = 0;               // up to the fault
  int64_t since = 0;                 // time of the first row
  std::string fault{};               // empty for an unbroken chain
  int64_t bad = 0;                   // number of the row at fault
  std::vector<std::string> notes{};  // what is explained: writers that were killed, lost changes
};

class Choice;

class Trail {
 public:
  explicit Trail(std::string folder, Limits limits = {})
      : folder_(std::move(folder)), limits_(limits) {}

  // Adds a row, which is on disk afterwards. False after two seconds without the lock, or when it
  // cannot be written; errno is the reason.
  [[nodiscard]] bool append(const Entry& entry) const;
  // False when a file cannot be read. A folder that is missing has no rows.
  [[nodiscard]] bool read(const Query& query, Page& page) const;
  [[nodiscard]] bool verify(Verdict& verdict) const;
  [[nodiscard]] const std::string& folder() const { return folder_; }

 private:
  // Where the next row goes.
  struct Place {
    int64_t start = 1;   // of its file
    int64_t number = 1;  // of the row
    std::string hash{};  // of the row before
    int64_t size = 0;    // of the file
    size_t torn = 0;     // bytes of an unfinished line before
    bool begins_file = true;
    bool ends_line = false;  // that the writer before has not ended
  };

  // The first numbers of the files, in order. False when the folder cannot be read.
  [[nodiscard]] bool list(std::vector<int64_t>& starts) const;
  [[nodiscard]] bool read_newest(std::vector<int64_t>& starts, std::string& newest) const;
  [[nodiscard]] std::string path_of(int64_t start) const;
  [[nodiscard]] bool find_place(const std::vector<int64_t>& starts, Place& place) const;
  [[nodiscard]] bool choose(int64_t start, const Query& query, Choice& choice) const;

  std::string folder_;
  Limits limits_;
};

// `text` as valid UTF-8 of at most LONGEST_TEXT bytes.
[[nodiscard]] std::string shortened(const std::string& text);

}  // namespace ormel::audit
