// Whole files: read, written, replaced and moved.
#pragma once

#include <string>
#include <string_view>

#include "base/file.h"
#include "base/handle.h"

namespace ormel::system {

// Returns whether the path itself, not the target of a link, is a regular file, or has its owner's
// execute bit set.
[[nodiscard]] bool regular_file(const char* path);
[[nodiscard]] bool executable_file(const char* path);

// Reads a whole regular file of at most `limit` bytes. Returns false when that fails.
[[nodiscard]] inline bool read_file(const char* path, std::string& out,
                                    size_t limit = fenro::FILE_MAX) {
  return fenro::read_file(path, out, limit) == 0;
}

// Copies a file and deletes the original. Returns whether the original is gone.
bool move_file(const char* from, const char* to, unsigned int mode);

// Writes `content` to a file, created with `mode`; a file that took less is deleted. Returns
// whether all was written.
bool write_file(const std::string& content, const char* path, unsigned int mode);

// A text as a file in memory, for what reads files by their path. It goes with the object.
class MemoryFile {
 public:
  explicit MemoryFile(std::string_view content);
  // Names nothing when there is no memory.
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  fenro::Fd fd_;
  std::string path_;
};

using fenro::replace_file;
using fenro::write_all;

}  // namespace ormel::system
