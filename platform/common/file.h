// Files read whole and replaced whole.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace fenro {

// The bytes of a file, with a NUL behind them.
struct Text {
  std::unique_ptr<char[]> bytes{};
  std::size_t size = 0;
  [[nodiscard]] std::string_view view() const { return {bytes ? bytes.get() : "", size}; }
};

// Reads a regular file. 0, or the errno of what went wrong; anything but a file of sane size is EINVAL.
[[nodiscard]] int read_file(const char* path, Text& out);

// Puts `content` in the place of a file, whole or not at all: a temporary file in the same folder, flushed to disk and
// renamed. An existing file keeps owner and mode, a symbolic link its target's place; a new file gets 0600.
[[nodiscard]] bool replace_file(const std::string& path, std::string_view content);

// Writes all of `content`, going on after interruptions and short writes.
[[nodiscard]] bool write_all(int fd, std::string_view content);

// Makes the folder for root or our own user alone, its parent too where that is missing. False when it is not ours.
[[nodiscard]] bool make_private_folder(const std::string& path);

}  // namespace fenro
