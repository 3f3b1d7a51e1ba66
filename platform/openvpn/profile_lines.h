// An OpenVPN profile as the daemon itself takes it apart: its lines, their words, its blocks.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace fenro::openvpn {

constexpr std::size_t MAX_LINE = 255;  // bytes that the daemon takes of a line, with its end
constexpr std::size_t MAX_WORDS = 16;  // what follows them on a line is ignored
constexpr std::size_t MAX_WORD = 256;  // bytes

// Splits a line, which may have its end. Returns null, or why the daemon would not take the line.
[[nodiscard]] const char* split_line(std::string_view line, std::vector<std::string>& words);

// An option with its words, or a block: then `words` is its tag alone.
struct ProfileLine {
  std::size_t number = 0;  // of its first line, from 1
  std::vector<std::string> words{};
  bool block = false;
  std::string body{};  // the lines of the block
};

struct ProfileText {
  std::vector<ProfileLine> lines{};
  std::size_t refused_line = 0;  // 0: nothing was refused
  const char* refusal = nullptr;
};

// Reads a whole profile. Stricter than the daemon: what could be read in two ways is refused. Those
// are control bytes other than a tab and the line's end, a name that is not one, and a "<" within a
// block. `first` is the number of the first line; the lines of a connection block are read by a
// call of their own.
[[nodiscard]] ProfileText read_profile(std::string_view text, std::size_t first = 1);

}  // namespace fenro::openvpn
