// A plugin that leaves a sign when a program loads it.
#include <fcntl.h>
#include <unistd.h>

namespace {

[[gnu::constructor]] void tell() {
  if (const int fd = open("/tmp/mark", O_WRONLY | O_CREAT | O_CLOEXEC, 0666); fd >= 0) close(fd);
}

}  // namespace
