#include "ormel/base/error_capture.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace ormel::system {

ErrorCapture::ErrorCapture()
    : saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)),
      file_(memfd_create("stderr", MFD_CLOEXEC)) {
  std::fflush(stderr);
  if (saved_ && file_) dup2(file_.get(), STDERR_FILENO);
}

std::string ErrorCapture::take() {
  constexpr size_t LIMIT = 4096;
  constexpr std::string_view PREFIX = "Error: ";
  restore();
  std::string text(LIMIT, '\0');
  const ssize_t got = file_ ? pread(file_.get(), text.data(), text.size(), 0) : 0;
  text.resize(got > 0 ? static_cast<size_t>(got) : 0);
  text.resize(std::min(text.find('\n'), text.size()));
  return text.starts_with(PREFIX) ? text.substr(PREFIX.size()) : std::string();
}

void ErrorCapture::restore() {
  std::fflush(stderr);
  if (saved_) dup2(saved_.get(), STDERR_FILENO);
  saved_ = Fd{};
}

}  // namespace ormel::system
