// A temporary file or folder for one test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <iterator>
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

// A new folder, removed at the end with all that is in it; paths are relative to it.
class Scratch {
 public:
  explicit Scratch(const char* parent = "/tmp") {
    std::string name = std::string(parent) + "/fenro-test-XXXXXX";
    folder_ = mkdtemp(name.data());
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  [[nodiscard]] std::string path(const std::string& name) const { return folder_ + "/" + name; }
  std::string write(const std::string& name, const std::string& content) const {
    support::write(path(name), content);
    return path(name);
  }
  [[nodiscard]] std::string read(const std::string& name) const {
    return support::read(path(name));
  }
  [[nodiscard]] mode_t mode(const std::string& name) const { return support::mode_of(path(name)); }
  [[nodiscard]] std::size_t files() const {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator{folder_}, {}));
  }

 private:
  std::string folder_;
};

}  // namespace support
