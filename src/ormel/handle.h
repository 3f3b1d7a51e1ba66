// Owners of the C handles that the program uses, so that every `return` is a complete clean-up.
// Outside this header, the request parser and the child's side of a fork nothing is released by hand.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <regex.h>
#include <string>
#include <unistd.h>
#include <utility>

#include <fenro/conf.h>
#include <fenro/mibservice.h>
#include <jansson.h>

namespace ormel {

template <auto* Free>
struct FreeWith {
  template <typename T>
  void operator()(T* handle) const noexcept {
    Free(handle);  // NOLINT(cppcoreguidelines-no-malloc, cppcoreguidelines-owning-memory): this is the owner
  }
};

// json_decref is a static inline: as a template argument it would make a different type in every source.
struct FreeJson {
  void operator()(json_t* value) const noexcept { json_decref(value); }
};

using Json = std::unique_ptr<json_t, FreeJson>;
using MibIo = std::unique_ptr<mib_io, FreeWith<mib_io_free>>;
using Conf = std::unique_ptr<Conf_dir, FreeWith<Conf_Dir_Free>>;
using File = std::unique_ptr<std::FILE, FreeWith<std::fclose>>;
using Pipe = std::unique_ptr<std::FILE, FreeWith<pclose>>;
using Dir = std::unique_ptr<DIR, FreeWith<closedir>>;
using CString = std::unique_ptr<char, FreeWith<std::free>>;  // text that a C library allocated with malloc

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
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  explicit operator bool() const noexcept { return fd_ >= 0; }
  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// A compiled POSIX expression. One that does not compile matches nothing.
class Regex {
 public:
  explicit Regex(const char* expression, int flags = REG_EXTENDED)
      : compiled_(regcomp(&regex_, expression, flags) == 0) {}
  Regex(const Regex&) = delete;
  Regex& operator=(const Regex&) = delete;
  ~Regex() {
    if (compiled_) regfree(&regex_);
  }
  explicit operator bool() const noexcept { return compiled_; }
  // The groups of the first match, the whole match at 0; false when there is none.
  [[nodiscard]] bool search(const char* text, regmatch_t* groups = nullptr, size_t count = 0, int flags = 0) const {
    return compiled_ && regexec(&regex_, text, count, groups, flags) == 0;
  }

 private:
  regex_t regex_{};
  bool compiled_;
};

}  // namespace ormel
