// Owners of the C handles that the program uses: those that it shares with the platform, and its
// own.
#pragma once

#include <cstdio>
#include <memory>
#include <regex.h>

#include <fenro/conf.h>

#include "base/bus_handle.h"
#include "base/c_memory.h"
#include "base/handle.h"
#include "base/json_handle.h"

namespace ormel {

using fenro::CString;
using fenro::Dir;
using fenro::Fd;
using fenro::File;
using fenro::FreeWith;
using fenro::Json;
using fenro::MibIo;
using Conf = std::unique_ptr<Conf_dir, FreeWith<Conf_Dir_Free>>;
using Pipe = std::unique_ptr<std::FILE, FreeWith<pclose>>;

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
  [[nodiscard]] bool search(const char* text, regmatch_t* groups = nullptr, size_t count = 0,
                            int flags = 0) const {
    return compiled_ && regexec(&regex_, text, count, groups, flags) == 0;
  }

 private:
  regex_t regex_{};
  bool compiled_;
};

}  // namespace ormel
