// Lines of an OpenVPN profile: taken apart by our reader and by the daemon's published rules,
// stated here once more in the daemon's own manner. Input: lines, each of which must come out
// alike, words and refusals.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "openvpn/profile_lines.h"

namespace {

constexpr size_t MOST_WORDS = 16;
constexpr size_t LONGEST_WORD = 256;

bool space(int byte) {
  return byte == 0 || std::isspace(byte);
}

// The word that begins at `at`, which is no blank. False for a line that the daemon refuses.
bool take_word(const std::string& line, size_t& at, std::string& word) {
  const char first = line[at];
  const char quote = first == '"' || first == '\'' ? first : '\0';
  if (quote) ++at;
  for (;; ++at) {
    char byte = line[at];  // behind the last one there is a NUL
    if (quote == '\'') {
      if (byte == '\'') return ++at, true;
      if (byte == '\0') return false;
    } else if (byte == '\\') {
      byte = line[++at];
      if (byte == '\0') return false;
      if (byte != '\\' && byte != '"' && !std::isspace(static_cast<unsigned char>(byte)))
        return false;
    } else if (quote) {
      if (byte == '"') return ++at, true;
      if (byte == '\0') return false;
    } else if (space(static_cast<unsigned char>(byte))) {
      return true;
    }
    if (word.size() == LONGEST_WORD) return false;
    word += byte;
  }
}

bool daemon_splits(const std::string& line, std::vector<std::string>& words) {
  for (size_t at = 0; words.size() < MOST_WORDS;) {
    while (line[at] != '\0' && std::isspace(static_cast<unsigned char>(line[at]))) ++at;
    if (line[at] == '\0' || line[at] == ';' || line[at] == '#') return true;
    // A backslash between words goes for nothing before a blank, and does not keep a comment from
    // being one.
    if (line[at] == '\\' && line[at + 1] != '\0') {
      const char next = line[at + 1];
      if (next == ';' || next == '#') return true;
      if (std::isspace(static_cast<unsigned char>(next))) {
        at += 2;
        continue;
      }
    } else if (line[at] == '\\') {
      return true;
    }
    std::string word;
    if (!take_word(line, at, word)) return false;
    words.push_back(word);
  }
  return true;
}

void compare(const std::string& line) {
  std::vector<std::string> ours;
  std::vector<std::string> theirs;
  const bool taken = fenro::openvpn::split_line(line, ours) == nullptr;
  const bool expected = daemon_splits(line, theirs);
  if (taken == expected && (!taken || ours == theirs)) return;
  std::fprintf(stderr, "read in two ways: %s\n", line.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
    const std::string line = text.substr(begin, end - begin);
    compare(line.substr(0, line.find('\0')));
    begin = end;
  }
  return 0;
}
