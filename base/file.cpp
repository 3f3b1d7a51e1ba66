#include "base/file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

#include "base/c_memory.h"
#include "base/handle.h"
#include "base/random_name.h"

namespace fenro {
namespace {

constexpr std::size_t READ_CHUNK = 65536;
constexpr mode_t PERMISSIONS = 07777;

std::string folder_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

constexpr const char* TEMPORARY_MARK = ".tmp-";
constexpr std::size_t RANDOM_LENGTH = 6;
constexpr int ATTEMPTS = 100;

// The lock of a temporary file says that its writer lives; it ends with the process, however that
// ends.
bool claim(int fd) {
  struct stat info {};
  return flock(fd, LOCK_EX | LOCK_NB) == 0 && fstat(fd, &info) == 0 && info.st_nlink > 0;
}

// A temporary file that is gone with the object unless it was moved into its place. It has no name
// until it is whole, where the file system can do that, so that nothing is left of a writer that is
// killed.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& beside)
      : beside_(beside),
        fd_(open(folder_of(beside).c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, PRIVATE_FILE)) {
    if (fd_) std::ignore = flock(fd_.get(), LOCK_EX | LOCK_NB);
    if (!fd_) make_named();
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (!name_.empty()) unlink(name_.c_str());
  }

  [[nodiscard]] bool fill(std::string_view content, const struct stat* old,
                          std::optional<mode_t> mode) {
    if (!fd_) return false;
    if (old && !take_owner(*old)) return false;
    if (!mode && old) mode = old->st_mode & PERMISSIONS;
    if (mode && fchmod(fd_.get(), *mode) != 0) return false;
    return write_all(fd_.get(), content) && fsync(fd_.get()) == 0;
  }

  [[nodiscard]] bool move_to(const std::string& path) {
    if (name_.empty() && !give_name()) return false;
    if (rename(name_.c_str(), path.c_str()) != 0) return false;
    name_.clear();
    return close(fd_.release()) == 0;  // what some file systems only find out then
  }

 private:
  // Called before the mode is set: changing the owner afterwards could take mode bits away again.
  [[nodiscard]] bool take_owner(const struct stat& old) {
    const bool other = old.st_uid != geteuid() || old.st_gid != getegid();
    return !other || fchown(fd_.get(), old.st_uid, old.st_gid) == 0 || errno == EPERM;
  }

  // Another process that removes stale files may have taken this one before it was locked.
  void make_named() {
    for (int i = 0; i < ATTEMPTS; ++i) {
      std::string name = beside_ + TEMPORARY_MARK + "XXXXXX";
      fd_ = Fd{mkostemp(name.data(), O_CLOEXEC)};
      if (!fd_) return;
      if (claim(fd_.get())) {
        name_ = std::move(name);
        return;
      }
    }
    fd_.reset();
  }

  // A file cannot be linked over another one, so it gets a name for the moment until the rename.
  [[nodiscard]] bool give_name() {
    const std::string open_file = "/proc/self/fd/" + std::to_string(fd_.get());
    for (int i = 0; i < ATTEMPTS; ++i) {
      std::string ending(RANDOM_LENGTH, '\0');
      if (!random_name(ending)) return false;
      const std::string name = beside_ + TEMPORARY_MARK + ending;
      if (linkat(AT_FDCWD, open_file.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
        name_ = name;
        return true;
      }
      if (errno != EEXIST) return false;
    }
    return false;
  }

  std::string beside_;
  std::string name_;  // empty while it has none
  Fd fd_;
};

bool is_stale_name(std::string_view name, std::string_view start) {
  return name.starts_with(start) && name.size() == start.size() + RANDOM_LENGTH &&
         name.find_first_not_of(NAME_CHARACTERS, start.size()) == std::string_view::npos;
}

// Removes the temporary files of writers that were killed.
void remove_stale(const std::string& target) {
  const std::string folder = folder_of(target);
  const std::string start = target.substr(target.rfind('/') + 1) + TEMPORARY_MARK;
  const Dir listing{opendir(folder.c_str())};
  while (const dirent* const entry = listing ? readdir(listing.get()) : nullptr) {
    if (!is_stale_name(entry->d_name, start)) continue;
    const Fd fd{openat(dirfd(listing.get()), entry->d_name,
                       O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC)};
    struct stat info {};
    if (fd && fstat(fd.get(), &info) == 0 && S_ISREG(info.st_mode) && claim(fd.get()))
      unlinkat(dirfd(listing.get()), entry->d_name, 0);
  }
}

// The rename itself has to reach the disk; file systems that cannot flush a folder answer EINVAL.
bool flush_folder(const std::string& path) {
  const Fd folder{open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  return folder && (fsync(folder.get()) == 0 || errno == EINVAL);
}

}  // namespace

bool write_all(int fd, std::string_view content) {
  while (!content.empty()) {
    const ssize_t n = write(fd, content.data(), content.size());
    if (n < 0 && errno != EINTR) return false;
    if (n > 0) content.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

int read_file(const char* path, std::string& out, std::size_t limit) {
  out.clear();
  // Non-blocking, so that a FIFO in the file's place is refused and not waited for.
  const Fd fd{open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
  struct stat info {};
  if (!fd || fstat(fd.get(), &info) != 0) return errno;
  const auto size = static_cast<std::size_t>(info.st_size);
  if (!S_ISREG(info.st_mode) || size > limit) return EINVAL;

  // Files of /proc and /sys do not say how long they are: those are read to the end.
  std::size_t length = 0;
  ssize_t got = 1;
  while (got > 0 && (size == 0 || length < size)) {
    const std::size_t chunk = size == 0 ? READ_CHUNK : size - length;
    out.resize(length + chunk);
    got = TEMP_FAILURE_RETRY(read(fd.get(), out.data() + length, chunk));
    length += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
  }
  const int failure = got < 0 ? errno : length > limit ? EINVAL : 0;
  out.resize(failure == 0 ? length : 0);
  return failure;
}

bool replace_file(const std::string& path, std::string_view content, std::optional<mode_t> mode) {
  const CString resolved{realpath(path.c_str(), nullptr)};
  if (!resolved && errno != ENOENT) return false;
  const std::string target = resolved ? resolved.get() : path;

  struct stat old {};
  const bool exists = resolved && stat(target.c_str(), &old) == 0;
  if (exists && !S_ISREG(old.st_mode)) return false;
  remove_stale(target);
  TemporaryFile fresh{target};
  if (!fresh.fill(content, exists ? &old : nullptr, mode) || !fresh.move_to(target)) return false;
  return flush_folder(folder_of(target));
}

bool make_private_folder(const std::string& path) {
  constexpr mode_t OWN = 0700;
  constexpr mode_t PARENT = 0755;
  constexpr mode_t OTHERS = 022;
  if (mkdir(path.c_str(), OWN) != 0 && errno == ENOENT) {
    mkdir(folder_of(path).c_str(), PARENT);
    mkdir(path.c_str(), OWN);
  }
  struct stat info {};
  return lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && (info.st_mode & OTHERS) == 0 &&
         (info.st_uid == 0 || info.st_uid == geteuid());
}

}  // namespace fenro
