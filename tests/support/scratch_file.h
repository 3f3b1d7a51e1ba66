// A temporary file for one test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>

namespace support {

// A path that nothing else uses, with an empty or the given content; removed at the end.
class ScratchFile {
 public:
  explicit ScratchFile(const std::string& content = "")
      : path_(std::filesystem::temp_directory_path() / "ormel-test-XXXXXX") {
    if (const int fd = mkstemp(path_.data()); fd >= 0) close(fd);
    std::ofstream(path_, std::ios::binary) << content;
  }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;
  ~ScratchFile() { unlink(path_.c_str()); }

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string content() const {
    std::ifstream file(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::string path_;
};

}  // namespace support
