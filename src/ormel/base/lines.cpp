#include "ormel/base/lines.h"

#include <algorithm>

namespace ormel {

std::vector<std::string> split_words(std::string_view text) {
  constexpr std::string_view BLANKS = " \t\n\v\f\r";
  std::vector<std::string> words;
  size_t at = text.find_first_not_of(BLANKS);
  while (at != std::string_view::npos) {
    const size_t end = text.find_first_of(BLANKS, at);
    words.emplace_back(text.substr(at, end - at));
    at = text.find_first_not_of(BLANKS, end);
  }
  return words;
}

std::vector<std::string> split_lines(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

bool one_line(const std::string& text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos;
}

}  // namespace ormel
