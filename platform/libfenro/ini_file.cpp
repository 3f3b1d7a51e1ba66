#include "libfenro/ini_file.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

#include "base/file.h"
#include "base/handle.h"
#include "libfenro/ini.h"
#include "libfenro/paths.h"
#include "libfenro/settings_fault.h"

namespace fenro::ini {
namespace {

constexpr const char* CALLER_LOCK = ".lock";
constexpr const char* EDIT_LOCK = ".edit";
constexpr const char* COPY = ".kept";

// The path without links and dots of a file that need not be there, nor its folder. The C++
// library's own function for this brings in its locales, which every start of a program would set
// up.
std::string full_path(const std::string& path) {
  const std::unique_ptr<char, FreeWith<std::free>> found{realpath(path.c_str(), nullptr)};
  if (found) return found.get();
  if (errno != ENOENT || path == "." || path == "/") return {};
  const size_t slash = path.find_last_of('/');
  const std::string folder = full_path(slash == std::string::npos ? "."
                                       : slash == 0               ? "/"
                                                                  : path.substr(0, slash));
  if (folder.empty()) return {};
  return (folder == "/" ? "" : folder) + '/' + path.substr(slash + 1);
}

// One name for each file, whatever way to it the caller wrote.
std::string lock_name(const char* path, const char* ending) {
  constexpr std::uint64_t FNV_START = 14695981039346656037U;
  constexpr std::uint64_t FNV_PRIME = 1099511628211U;
  const std::string target = full_path(path);
  if (target.empty()) return {};
  std::uint64_t hash = FNV_START;
  for (const char c : target) hash = (hash ^ static_cast<unsigned char>(c)) * FNV_PRIME;
  std::array<char, 40> text{};
  std::snprintf(text.data(), text.size(), "%016llx%s", static_cast<unsigned long long>(hash),
                ending);
  return text.data();
}

int take_lock(const std::string& locks, const std::string& name, short kind) {
  if (name.empty() || !make_private_folder(locks)) return -1;
  Fd fd{open((locks + "/" + name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
             PRIVATE_FILE)};
  struct stat info {};
  if (!fd || fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return -1;
  struct flock lock {};
  lock.l_type = kind;
  lock.l_whence = SEEK_SET;
  // Of the open file, not of the process: closing another descriptor of the file must not end it.
  while (fcntl(fd.get(), F_OFD_SETLKW, &lock) != 0)
    if (errno != EINTR) return -1;
  return fd.release();
}

template <typename Edit>
bool edit_file(const std::string& path, Edit edit) {
  // Not the lock that callers of lock_file take: they may hold it and run an edit. A user who
  // cannot keep locks edits without one.
  const Fd lock{take_lock(paths::LOCKS, lock_name(path.c_str(), EDIT_LOCK), F_WRLCK)};
  std::string text;
  const int error = read_file(path.c_str(), text);
  if (error != 0 && error != ENOENT) return false;
  const std::string changed = edit(text);
  return changed == text || note_save(path, replace_file(path, changed));
}

// A document that ends before all that it opened is closed, as a writer leaves it that is killed in
// the middle.
bool is_torn(std::string_view text) {
  int open = 0;
  bool quoted = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (quoted && text[i] == '\\') {
      ++i;
    } else if (text[i] == '"') {
      quoted = !quoted;
    } else if (!quoted) {
      if (text[i] == '{') ++open;
      if (text[i] == '}') --open;
    }
  }
  return text.find_first_not_of(" \t\r\n") == std::string_view::npos || quoted || open != 0;
}

// Called with the lock: where there is a copy, its writer did not live to give the lock back.
void put_back(const std::string& path) {
  std::string text;
  const std::string copy = path + COPY;
  if (access(copy.c_str(), F_OK) != 0) return;
  const int error = read_file(path.c_str(), text);
  if (error != 0 && error != ENOENT) return;
  // Of two readers that come at once the second finds nothing to move.
  if (is_torn(text)) {
    std::ignore = rename(copy.c_str(), path.c_str());
  } else {
    std::ignore = unlink(copy.c_str());
  }
}

// A writer empties the file first, so what it holds is laid beside it. False when a file could not
// be kept so: a writer that is let in then would end with nothing.
bool keep_copy(const std::string& path) {
  std::string text;
  if (read_file(path.c_str(), text) != 0 || is_torn(text)) return true;  // nothing to keep
  return note_save(path, replace_file(path + COPY, text));
}

std::map<int, std::string>& kept_copies() {
  static std::map<int, std::string> copies;
  return copies;
}

std::mutex& kept_mutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

std::optional<std::string> read_value(const char* path, std::string_view section,
                                      std::string_view key) {
  std::string text;
  if (read_file(path, text) != 0) return {};
  const auto value = find(text, section, key);
  return value ? std::optional<std::string>{*value} : std::nullopt;
}

bool write_value(const std::string& path, std::string_view section, std::string_view key,
                 std::string_view value) {
  if (!section_is_writable(section) || !key_is_writable(key)) return false;
  return edit_file(path, [&](std::string_view text) {
    return with_value(text, section, key, first_line(value));
  });
}

bool remove_section(const std::string& path, std::string_view section) {
  if (section.empty()) return false;
  return edit_file(path, [&](std::string_view text) { return without_section(text, section); });
}

bool replace_under_lock(const std::string& path,
                        const std::function<std::string(std::string_view)>& make) {
  const Fd lock{take_lock(paths::LOCKS, lock_name(path.c_str(), EDIT_LOCK), F_WRLCK)};
  std::string text;
  std::ignore = read_file(path.c_str(), text);
  return note_save(path, replace_file(path, make(text)));
}

int lock_file(const std::string& locks, const char* path, Lock kind) {
  Fd lock{take_lock(locks, lock_name(path, CALLER_LOCK), kind == Lock::Read ? F_RDLCK : F_WRLCK)};
  if (!lock) return -1;
  put_back(path);
  if (kind == Lock::Write && !keep_copy(path)) return -1;
  const std::lock_guard guard{kept_mutex()};
  kept_copies().erase(lock.get());  // of a descriptor that was closed by hand
  if (kind == Lock::Write) kept_copies().emplace(lock.get(), path + std::string(COPY));
  return lock.release();
}

bool unlock_file(int descriptor) {
  if (descriptor < 0) return false;
  {
    const std::lock_guard guard{kept_mutex()};
    if (const auto kept = kept_copies().extract(descriptor)) unlink(kept.mapped().c_str());
  }
  return close(descriptor) == 0;
}

}  // namespace fenro::ini
