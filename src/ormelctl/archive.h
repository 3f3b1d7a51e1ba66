// Files packed in one: zip, tar and their like, by libarchive.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

#include "ormel/base/handle.h"

namespace ormelctl {

// A folder in memory for its owner alone. It goes with the object, and with the process however
// that ends.
class PrivateFolder {
 public:
  PrivateFolder();
  PrivateFolder(const PrivateFolder&) = delete;
  PrivateFolder& operator=(const PrivateFolder&) = delete;
  ~PrivateFolder();
  [[nodiscard]] const std::string& path() const {
    return path_;
  }  // empty when it could not be made

 private:
  std::string path_;
  ormel::Fd life_{};  // a second process removes the folder once this is closed
  pid_t remover_ = -1;
};

struct PackedFile {
  std::string name;  // the last part of its name in the archive
  std::string path;  // where its content is
};

// Whether a file is named like an archive.
[[nodiscard]] bool is_archive(const std::string& path);

// Unpacks the regular files of an archive into numbered files of a folder; links and other entries
// are skipped, and names are never used as paths. Returns an empty text, or what is wrong: at most
// 200 files and 10 MiB are taken.
[[nodiscard]] std::string unpack(const std::string& path, const std::string& folder,
                                 std::vector<PackedFile>& files);

}  // namespace ormelctl
