// Files of tests, read and written whole.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>

namespace support {

// Returns the content of a file, empty for one that cannot be read.
inline std::string read(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline void write(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline void write(const std::filesystem::path& path, const std::string& text, mode_t mode) {
  write(path, text);
  chmod(path.c_str(), mode);
}

// Returns the permissions of a file, 0 for a missing one.
inline mode_t mode_of(const std::filesystem::path& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// Makes a folder for its owner alone, without what was in it.
inline void make_empty_folder(const std::filesystem::path& path) {
  std::filesystem::remove_all(path);
  std::filesystem::create_directories(path);
  std::filesystem::permissions(path, std::filesystem::perms::owner_all);
}

}  // namespace support
