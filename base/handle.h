// Owners of C handles, so that every `return` is a complete clean-up. Outside this header, the
// request parser and the child's side of a fork nothing is released by hand.
#pragma once

#include <cstdio>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

namespace fenro {

template <auto* Free>
struct FreeWith {
  template <typename T>
  void operator()(T* handle) const noexcept {
    Free(handle);  // NOLINT(cppcoreguidelines-owning-memory,cppcoreguidelines-no-malloc): this is
                   // the owner
  }
};

using File = std::unique_ptr<std::FILE, FreeWith<std::fclose>>;
using Dir = std::unique_ptr<DIR, FreeWith<closedir>>;

// A descriptor; movable, closed once.
class Fd {
 public:
  explicit Fd(int fd = -1) noexcept : fd_(fd) {}
  Fd(Fd&& from) noexcept : fd_(std::exchange(from.fd_, -1)) {}
  Fd& operator=(Fd&& from) noexcept {
    std::swap(fd_, from.fd_);
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }
  explicit operator bool() const noexcept { return fd_ >= 0; }
  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
  void reset() noexcept {
    if (const int fd = std::exchange(fd_, -1); fd >= 0) ::close(fd);
  }

 private:
  int fd_;
};

}  // namespace fenro
