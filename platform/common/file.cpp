#include "common/file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/c_memory.h"
#include "common/handle.h"

namespace fenro {
namespace {

constexpr off_t MAX_FILE = off_t{256} << 20;
constexpr mode_t PERMISSIONS = 07777;

std::string folder_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// A temporary file that is gone with the object unless it was moved into its place.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& beside)
      : name_(beside + ".XXXXXX"), fd_(mkostemp(name_.data(), O_CLOEXEC)), present_(fd_.operator bool()) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (present_) unlink(name_.c_str());
  }

  [[nodiscard]] bool fill(std::string_view content, const struct stat* model) {
    if (!fd_) return false;
    if (model && !take_owner_and_mode(*model)) return false;
    // close reports what some file systems only find out then.
    return write_all(fd_.get(), content) && fsync(fd_.get()) == 0 && close(fd_.release()) == 0;
  }

  [[nodiscard]] bool move_to(const std::string& path) {
    if (rename(name_.c_str(), path.c_str()) != 0) return false;
    present_ = false;
    return true;
  }

 private:
  // The owner first: changing it afterwards could take mode bits away again.
  [[nodiscard]] bool take_owner_and_mode(const struct stat& model) {
    const bool other = model.st_uid != geteuid() || model.st_gid != getegid();
    if (other && fchown(fd_.get(), model.st_uid, model.st_gid) != 0 && errno != EPERM) return false;
    return fchmod(fd_.get(), model.st_mode & PERMISSIONS) == 0;
  }

  std::string name_;
  Fd fd_;
  bool present_;
};

// The rename itself has to reach the disk; file systems without a notion of that answer EINVAL.
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

int read_file(const char* path, Text& out) {
  // Non-blocking, so that a FIFO in the file's place is refused and not waited for.
  const Fd fd{open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
  struct stat info {};
  if (!fd || fstat(fd.get(), &info) != 0) return errno;
  if (!S_ISREG(info.st_mode) || info.st_size > MAX_FILE) return EINVAL;

  const auto size = static_cast<std::size_t>(info.st_size);
  out.bytes = std::make_unique_for_overwrite<char[]>(size + 1);
  out.size = 0;
  while (out.size < size) {
    const ssize_t n = read(fd.get(), out.bytes.get() + out.size, size - out.size);
    if (n < 0 && errno != EINTR) return errno;
    if (n == 0) break;
    if (n > 0) out.size += static_cast<std::size_t>(n);
  }
  out.bytes[out.size] = '\0';
  return 0;
}

bool replace_file(const std::string& path, std::string_view content) {
  const CString resolved{realpath(path.c_str(), nullptr)};
  if (!resolved && errno != ENOENT) return false;
  const std::string target = resolved ? resolved.get() : path;

  struct stat old {};
  const bool exists = resolved && stat(target.c_str(), &old) == 0;
  if (exists && !S_ISREG(old.st_mode)) return false;
  TemporaryFile fresh{target};
  if (!fresh.fill(content, exists ? &old : nullptr) || !fresh.move_to(target)) return false;
  return flush_folder(folder_of(target));
}

bool make_private_folder(const std::string& path) {
  constexpr mode_t PRIVATE = 0700;
  constexpr mode_t PARENT = 0755;
  constexpr mode_t OTHERS = 022;
  if (mkdir(path.c_str(), PRIVATE) != 0 && errno == ENOENT) {
    mkdir(folder_of(path).c_str(), PARENT);
    mkdir(path.c_str(), PRIVATE);
  }
  struct stat info {};
  return lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && (info.st_mode & OTHERS) == 0 &&
         (info.st_uid == 0 || info.st_uid == geteuid());
}

}  // namespace fenro
