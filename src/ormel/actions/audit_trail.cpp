#include "ormel/actions/audit_trail.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <unistd.h>

#include "base/lines.h"
#include "base/utf8.h"
#include "ormel/actions/audit_row.h"
#include "ormel/base/file.h"
#include "ormel/base/handle.h"
#include "ormel/base/text.h"

namespace ormel::audit {

namespace {

constexpr std::string_view ENDING = ".jsonl";
constexpr size_t DIGITS = 12;
constexpr off_t TAIL_BYTES = off_t{1} << 20;  // more than the two longest rows

// The lock of the folder: one writer, or any number of readers.
class FolderLock {
 public:
  FolderLock(const std::string& folder, int kind)
      : fd_(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    constexpr std::chrono::seconds PATIENCE{2};
    constexpr std::chrono::milliseconds PAUSE{5};
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + PATIENCE;
    while (fd_ && !held_ && Clock::now() < end) {
      held_ = flock(fd_.get(), kind | LOCK_NB) == 0;
      if (!held_) std::this_thread::sleep_for(PAUSE);
    }
    if (fd_ && !held_) errno = EWOULDBLOCK;
  }
  explicit operator bool() const { return held_; }
  [[nodiscard]] int folder() const { return fd_.get(); }

 private:
  Fd fd_;
  bool held_ = false;
};

std::vector<std::string_view> lines_of(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) lines.push_back(fenro::take_line(text));
  return lines;
}

// The end of a file, where the next row goes.
struct Tail {
  int64_t number = 0;  // of the last row
  std::string hash{FIRST_HASH};
  off_t size = 0;        // of the file
  size_t torn = 0;       // bytes of a last line that its writer has not finished
  bool is_open = false;  // the last line has no end
  bool has_rows = false;
};

bool read_end(const std::string& path, std::string& text, off_t& size) {
  const Fd fd{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW)};
  struct stat info {};
  if (!fd || fstat(fd.get(), &info) != 0) return false;
  size = info.st_size;
  const off_t from = std::max<off_t>(size - TAIL_BYTES, 0);
  text.resize(static_cast<size_t>(size - from));
  const ssize_t got = pread(fd.get(), text.data(), text.size(), from);
  text.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
  return got >= 0;
}

// Damaged rows at the end are counted, so that the numbers go on after them.
bool read_tail(const std::string& path, int64_t start, Tail& tail) {
  std::string text;
  if (!read_end(path, text, tail.size)) return false;
  std::vector<std::string_view> lines = lines_of(text);
  tail.is_open = !text.empty() && !text.ends_with('\n');
  if (tail.is_open && !parse_row(lines.back())) {
    tail.torn = lines.back().size();
    lines.pop_back();
  }
  tail.has_rows = !lines.empty();
  int64_t damaged = 0;
  for (auto line = lines.rbegin(); line != lines.rend(); ++line, ++damaged) {
    const std::optional<Row> row = parse_row(*line);
    if (!row) continue;
    tail.number = row->entry.number + damaged;
    tail.hash = row->hash;
    return true;
  }
  tail.number = start - 1 + damaged;
  return true;
}

// Writes by one call. After a failure the file is as it was.
bool write_row(const std::string& path, const std::string& text, off_t size) {
  const Fd fd{open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                   fenro::PRIVATE_FILE)};
  if (!fd) return false;
  const ssize_t written = TEMP_FAILURE_RETRY(write(fd.get(), text.data(), text.size()));
  if (written == static_cast<ssize_t>(text.size())) return fdatasync(fd.get()) == 0;
  const int reason = written < 0 ? errno : ENOSPC;
  // What cannot be taken back is a torn line to the next writer.
  if (written > 0) std::ignore = ftruncate(fd.get(), size);
  errno = reason;
  return false;
}

// Follows the chain from row to row.
class Walk {
 public:
  explicit Walk(Verdict& verdict) : verdict_(verdict) {}

  // A file whose first row has the number `start`. False at the fault.
  bool file(std::string_view text, int64_t start) {
    if (next_ == 0) next_ = start;
    begins_file_ = true;
    while (!text.empty()) {
      const std::string_view line = fenro::take_whole_line(text);
      const bool whole = line.ends_with('\n');
      if (!step(whole ? line.substr(0, line.size() - 1) : line, whole)) return false;
    }
    return true;
  }

  void end() {
    if (torn_ == 0) return;
    if (torn_is_whole_)
      fault("is damaged");
    else
      note_torn();
  }

 private:
  bool step(std::string_view line, bool whole) {
    const std::optional<Row> row = parse_row(line);
    return row ? take(*row, line) : put_aside(line, whole);
  }

  // A line that is no row is explained by the next row, or by the end of the trail.
  bool put_aside(std::string_view line, bool whole) {
    json_error_t where{};
    const Json content{json_loadb(line.data(), line.size(), JSON_DISABLE_EOF_CHECK, &where)};
    const bool has_more = content && static_cast<size_t>(where.position) < line.size();
    if (torn_ != 0 || has_more) return fault("is damaged");
    torn_ = line.size();
    torn_is_whole_ = whole;
    return true;
  }

  bool take(const Row& row, std::string_view line) {
    if (row.torn != torn_) return fault("is damaged");
    if (row.entry.number != next_) return fault("is missing");
    if (hash_.empty()) hash_ = next_ == 1 ? std::string(FIRST_HASH) : row.previous;
    if (begins_file_ && row.previous != hash_) return fault("does not follow the one before it");
    if (!is_chained(line, hash_)) return fault("has been altered, or the one before it removed");
    if (torn_ != 0) note_torn();
    if (row.entry.lost != 0) {
      verdict_.notes.push_back(std::to_string(row.entry.lost) + " changes before entry " +
                               std::to_string(next_) + " could not be recorded");
    }
    if (verdict_.entries++ == 0) verdict_.since = row.entry.time;
    hash_ = row.hash;
    begins_file_ = false;
    torn_ = 0;
    ++next_;
    return true;
  }

  void note_torn() {
    verdict_.notes.push_back("the writer of an entry after " + std::to_string(next_ - 1) +
                             " was killed");
  }

  bool fault(const char* what) {
    verdict_.bad = next_;
    verdict_.fault = "entry " + std::to_string(next_) + ' ' + what;
    return false;
  }

  Verdict& verdict_;
  int64_t next_ = 0;  // number of the next row
  std::string hash_;  // of the row before
  bool begins_file_ = false;
  size_t torn_ = 0;  // length of a line that is no row
  bool torn_is_whole_ = false;
};

}  // namespace

// Chooses rows out of those that match, in the order in which they are offered.
class Choice {
 public:
  Choice(const Query& query, Page& page)
      : query_(query), page_(page), user_(member("user", query.user)) {}

  [[nodiscard]] bool is_plain() const { return query_.user.empty() && query_.since == 0; }
  // No row after this one can be wanted.
  [[nodiscard]] bool is_full() const { return is_plain() && page_.total > query_.upper; }
  // Rows of a file without a filter need not be looked at to be counted.
  bool skip(int64_t count) {
    const bool before = is_plain() && page_.total + count <= query_.lower;
    if (before) page_.total += count;
    return before;
  }
  void offer(std::string_view line) {
    if (is_plain() && (page_.total < query_.lower || page_.total > query_.upper)) {
      ++page_.total;
      return;
    }
    if (!query_.user.empty() && line.find(user_) == std::string_view::npos) return;
    std::optional<Row> row = parse_row(line);
    if (!row || !matches(row->entry)) return;
    if (page_.total >= query_.lower && page_.total <= query_.upper)
      page_.entries.push_back(std::move(row->entry));
    ++page_.total;
  }

 private:
  static std::string member(const char* name, const std::string& value) {
    const Json object{json_pack("{s:s}", name, shortened(value).c_str())};
    const CString text{json_dumps(object.get(), JSON_COMPACT | JSON_ENSURE_ASCII)};
    const std::string whole = text ? text.get() : "{}";
    return whole.substr(1, whole.size() - 2);
  }
  [[nodiscard]] bool matches(const Entry& entry) const {
    return (query_.user.empty() || entry.user == query_.user) && entry.time >= query_.since;
  }

  const Query& query_;
  Page& page_;
  std::string user_;
};

std::string shortened(const std::string& text) {
  constexpr std::string_view MORE = "…";
  std::string valid = fenro::valid_utf8(text);
  std::replace(valid.begin(), valid.end(), '\0', '?');  // no JSON reader takes it
  if (valid.size() <= LONGEST_TEXT) return valid;
  return mb_string(valid, LONGEST_TEXT - MORE.size()) + std::string(MORE);
}

std::string Trail::path_of(int64_t start) const {
  const std::string digits = std::to_string(start);
  return folder_ + '/' + std::string(DIGITS - std::min(DIGITS, digits.size()), '0') + digits +
         std::string(ENDING);
}

bool Trail::list(std::vector<int64_t>& starts) const {
  const Dir listing{opendir(folder_.c_str())};
  if (!listing) return errno == ENOENT;
  while (const dirent* const entry = readdir(listing.get())) {
    const std::string_view name = entry->d_name;
    int64_t start = 0;
    if (name.size() == DIGITS + ENDING.size() && name.ends_with(ENDING) &&
        fenro::parse_number(name.substr(0, DIGITS), start))
      starts.push_back(start);
  }
  std::sort(starts.begin(), starts.end());
  return true;
}

// A last file without a row is that of a writer which was killed: the last row is in the file
// before it.
bool Trail::find_place(const std::vector<int64_t>& starts, Place& place) const {
  if (starts.empty()) return true;
  Tail tail;
  if (!read_tail(path_of(starts.back()), starts.back(), tail)) return false;
  Tail before = tail;
  if (!tail.has_rows && starts.size() > 1) {
    const int64_t start = starts[starts.size() - 2];
    if (!read_tail(path_of(start), start, before)) return false;
  }
  const bool full = tail.has_rows && (tail.number - starts.back() + 1 >= limits_.file_rows ||
                                      tail.size >= MOST_FILE_BYTES);
  place.number = before.number + 1;
  place.hash = before.hash;
  place.torn = tail.torn != 0 ? tail.torn : before.torn;
  place.start = full ? place.number : starts.back();
  place.size = full ? 0 : tail.size;
  place.begins_file = full || !tail.has_rows;
  place.ends_line = !full && tail.is_open;
  return true;
}

bool Trail::append(const Entry& entry) const {
  if (!fenro::make_private_folder(folder_)) {
    errno = errno == EEXIST ? ENOTDIR : errno;  // it is there, and is no private folder
    return false;
  }
  const FolderLock lock(folder_, LOCK_EX);
  std::vector<int64_t> starts;
  Place place{.hash = std::string(FIRST_HASH)};
  if (!lock || !list(starts) || !find_place(starts, place)) return false;
  Row row{.entry = entry, .torn = place.torn};
  row.entry.number = place.number;
  if (place.begins_file) row.previous = place.hash;
  const std::string text = (place.ends_line ? "\n" : "") + line_of(row, place.hash);
  if (!write_row(path_of(place.start), text, place.size)) return false;
  if (!place.begins_file) return true;
  if (starts.empty() || starts.back() != place.start) starts.push_back(place.start);
  for (size_t i = 0; i + limits_.files < starts.size(); ++i) unlink(path_of(starts[i]).c_str());
  return fsync(lock.folder()) == 0 || errno == EINVAL;
}

// Files whose last row is too old, or whose rows all come before those that are wanted, are not
// taken apart.
bool Trail::choose(int64_t start, const Query& query, Choice& choice) const {
  const std::string path = path_of(start);
  struct stat info {};
  std::string text;
  if (stat(path.c_str(), &info) != 0) return errno == ENOENT;  // the oldest has just gone
  if (info.st_mtime < query.since) return true;
  if (!system::read_file(path.c_str(), text)) return false;
  std::vector<std::string_view> lines = lines_of(text);
  if (choice.skip(static_cast<int64_t>(lines.size()))) return true;
  if (!query.oldest_first) std::reverse(lines.begin(), lines.end());
  for (const std::string_view line : lines) choice.offer(line);
  return true;
}

bool Trail::read(const Query& query, Page& page) const {
  std::vector<int64_t> starts;
  Place place;
  if (!list(starts) || !find_place(starts, place)) return false;
  const int64_t all = starts.empty() ? 0 : place.number - starts.front();
  if (!query.oldest_first) std::reverse(starts.begin(), starts.end());
  Choice choice(query, page);
  for (const int64_t start : starts) {
    if (choice.is_full()) break;
    if (!choose(start, query, choice)) return false;
  }
  if (choice.is_plain()) page.total = all;
  return true;
}

// The files, and the text of the one that grows. Without the lock its last row may count as torn.
bool Trail::read_newest(std::vector<int64_t>& starts, std::string& newest) const {
  const FolderLock lock(folder_, LOCK_SH);
  return list(starts) &&
         (starts.empty() || system::read_file(path_of(starts.back()).c_str(), newest));
}

// The other files do not change. They are read without the lock, since writers give up after two
// seconds.
bool Trail::verify(Verdict& verdict) const {
  std::vector<int64_t> starts;
  std::string text, newest;
  if (!read_newest(starts, newest)) return false;
  if (!starts.empty() && starts.front() != 1 && starts.size() < limits_.files) {
    verdict.bad = 1;
    verdict.fault = "entries 1 to " + std::to_string(starts.front() - 1) + " are missing";
    return true;
  }
  Walk walk(verdict);
  for (const int64_t start : starts) {
    const bool last = start == starts.back();
    const int failure = last ? 0 : fenro::read_file(path_of(start).c_str(), text);
    if (failure == ENOENT && start == starts.front()) continue;  // the oldest has just gone
    if (failure != 0) return false;
    if (!walk.file(last ? newest : text, start)) return true;
  }
  walk.end();
  return true;
}

}  // namespace ormel::audit
