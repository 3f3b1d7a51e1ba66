#include "ormel/base/file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/handle.h"

namespace ormel::system {

namespace {

constexpr size_t COPY_CHUNK = 4096;

}  // namespace

bool regular_file(const char* path) {
  struct stat status {};
  return lstat(path, &status) == 0 && S_ISREG(status.st_mode);
}

bool executable_file(const char* path) {
  struct stat status {};
  return lstat(path, &status) == 0 && (status.st_mode & S_IXUSR) != 0;
}

bool move_file(const char* from, const char* to, unsigned int mode) {
  const fenro::Fd source{open(from, O_RDONLY | O_CLOEXEC)};
  const fenro::Fd target{open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode)};
  if (!source || !target) return false;
  while (sendfile(target.get(), source.get(), nullptr, COPY_CHUNK) > 0) continue;
  return unlink(from) == 0;
}

bool write_file(const std::string& content, const char* path, unsigned int mode) {
  const fenro::Fd fd{open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode)};
  if (!fd) return false;
  if (write(fd.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()))
    return true;
  unlink(path);
  return false;
}

MemoryFile::MemoryFile(std::string_view content) : fd_(memfd_create("ormel", MFD_CLOEXEC)) {
  if (fd_ && write_all(fd_.get(), content)) path_ = "/proc/self/fd/" + std::to_string(fd_.get());
}

}  // namespace ormel::system
