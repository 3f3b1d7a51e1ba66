// A temporary file for one test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

#include "support/files.h"

namespace support {

// A path that nothing else uses, with an empty or the given content; removed at the end.
class ScratchFile {
 public:
  explicit ScratchFile(const std::string& content = "")
      : path_(std::filesystem::temp_directory_path() / "ormel-test-XXXXXX") {
    if (const int fd = mkstemp(path_.data()); fd >= 0) close(fd);
    write(path_, content);
  }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;
  ~ScratchFile() { unlink(path_.c_str()); }

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string content() const { return read(path_); }

 private:
  std::string path_;
};

}  // namespace support
