#include "libfenro/ini_file.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

#include "common/file.h"
#include "common/handle.h"
#include "libfenro/ini.h"
#include "libfenro/paths.h"

namespace fenro::ini {
namespace {

constexpr mode_t LOCK_MODE = 0600;
constexpr const char* CALLER_LOCK = ".lock";
constexpr const char* EDIT_LOCK = ".edit";

// The path without links and dots of a file that need not be there, nor its folder. The C++ library's own function for
// this brings in its locales, which every start of a program would set up.
std::string full_path(const std::string& path) {
  const std::unique_ptr<char, FreeWith<std::free>> found{realpath(path.c_str(), nullptr)};
  if (found) return found.get();
  if (errno != ENOENT || path == "." || path == "/") return {};
  const size_t slash = path.find_last_of('/');
  const std::string folder = full_path(slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash));
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
  std::snprintf(text.data(), text.size(), "%016llx%s", static_cast<unsigned long long>(hash), ending);
  return text.data();
}

int take_lock(const std::string& locks, const std::string& name, short kind) {
  if (name.empty() || !make_private_folder(locks)) return -1;
  Fd fd{open((locks + "/" + name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, LOCK_MODE)};
  struct flock lock {};
  lock.l_type = kind;
  lock.l_whence = SEEK_SET;
  // Of the open file, not of the process: closing another descriptor of the file must not end it.
  while (fd && fcntl(fd.get(), F_OFD_SETLKW, &lock) != 0)
    if (errno != EINTR) return -1;
  return fd.release();
}

template <typename Edit>
bool edit_file(const std::string& path, Edit edit) {
  // Not the lock that callers of lock_file take: they may hold it and run an edit. A user who cannot keep locks edits
  // without one.
  const Fd lock{take_lock(paths::LOCKS, lock_name(path.c_str(), EDIT_LOCK), F_WRLCK)};
  Text text;
  const int error = read_file(path.c_str(), text);
  if (error != 0 && error != ENOENT) return false;
  const std::string changed = edit(text.view());
  return changed == text.view() || replace_file(path, changed);
}

}  // namespace

std::optional<std::string> read_value(const char* path, std::string_view section, std::string_view key) {
  Text text;
  if (read_file(path, text) != 0) return {};
  const auto value = find(text.view(), section, key);
  return value ? std::optional<std::string>{*value} : std::nullopt;
}

bool write_value(const std::string& path, std::string_view section, std::string_view key, std::string_view value) {
  if (!section_is_writable(section) || !key_is_writable(key)) return false;
  return edit_file(path, [&](std::string_view text) { return with_value(text, section, key, one_line(value)); });
}

bool remove_section(const std::string& path, std::string_view section) {
  if (section.empty()) return false;
  return edit_file(path, [&](std::string_view text) { return without_section(text, section); });
}

int lock_file(const std::string& locks, const char* path, Lock kind) {
  return take_lock(locks, lock_name(path, CALLER_LOCK), kind == Lock::Read ? F_RDLCK : F_WRLCK);
}

}  // namespace fenro::ini
