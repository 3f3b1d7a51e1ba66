// Files read whole and replaced whole.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace fenro {

// The mode of what may hold a secret.
inline constexpr mode_t PRIVATE_FILE = 0600;

inline constexpr std::size_t FILE_MAX = std::size_t{256} << 20;

// Reads a whole regular file. Returns 0, or the errno of the failure; devices and pipes, which may
// never end, and files of more than `limit` bytes are EINVAL. `out` is empty after a failure.
[[nodiscard]] int read_file(const char* path, std::string& out, std::size_t limit = FILE_MAX);

// Puts `content` in the place of a file, whole or not at all: a temporary file in the same folder,
// flushed to disk and renamed. An existing file keeps its owner, a symbolic link its target's
// place. The file gets `mode`; without one an existing file keeps its own, and a new file gets
// 0600. What writers that were killed left beside it is removed. After a failure errno is the
// reason.
[[nodiscard]] bool replace_file(const std::string& path, std::string_view content,
                                std::optional<mode_t> mode = {});

// Writes all of `content`, going on after interruptions and short writes.
[[nodiscard]] bool write_all(int fd, std::string_view content);

// Makes the folder for root or our own user alone, its parent too where that is missing. False when
// it is not ours.
[[nodiscard]] bool make_private_folder(const std::string& path);

}  // namespace fenro
