// Files in one text, in the form of tar, by libarchive.
#pragma once

#include <string>
#include <vector>

namespace ormel::changes {

struct TarFile {
  std::string name;
  std::string content;
};

inline constexpr std::size_t MOST_TAR_FILES = 10000;

// Each returns an empty text, or why it failed.

// Packs the files in their order, with nothing of the host in their heads.
[[nodiscard]] std::string pack_tar(const std::vector<TarFile>& files, std::string& out);
// Refuses a link, a folder or a device, more files than above, and files that come out larger than
// the text: a hostile text must not fill the memory.
[[nodiscard]] std::string unpack_tar(const std::string& text, std::vector<TarFile>& files);

}  // namespace ormel::changes
