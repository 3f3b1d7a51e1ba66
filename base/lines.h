// Texts as lines, words and fields: the one reader of them. No stream of the C++ library is used,
// since one of them anywhere in a program makes each start set up all locales.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace fenro {

constexpr std::string_view BLANKS = " \t";
constexpr std::string_view SPACE = " \t\n\v\f\r";  // what isspace() knows in the C locale
constexpr std::string_view LINE_BREAKS{"\r\n\0", 3};

// Removes the text up to the first `end` from the front, and `end` with it, and returns that text.
inline std::string_view take_until(std::string_view& text, char end) {
  const std::string_view part = text.substr(0, text.find(end));
  text.remove_prefix(std::min(part.size() + 1, text.size()));
  return part;
}

// The next line without its end. Loop while the text is not empty.
inline std::string_view take_line(std::string_view& text) {
  return take_until(text, '\n');
}

// The next line with its end, which the last one may lack. Every line of every settings file is
// read by this: one call of memchr is the quickest way to a line's end.
inline std::string_view take_whole_line(std::string_view& text) {
  const void* const end = std::memchr(text.data(), '\n', text.size());
  const std::size_t length =
      end ? static_cast<std::size_t>(static_cast<const char*>(end) - text.data()) + 1 : text.size();
  const std::string_view line = text.substr(0, length);
  text.remove_prefix(length);
  return line;
}

// The lines without their ends.
[[nodiscard]] inline std::vector<std::string> split_lines(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) lines.emplace_back(take_line(text));
  return lines;
}

inline void skip_blanks(std::string_view& text, std::string_view blanks = BLANKS) {
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
}

// The next word between blanks, empty at the end of the text.
inline std::string_view take_word(std::string_view& text, std::string_view blanks = BLANKS) {
  skip_blanks(text, blanks);
  const std::string_view word = text.substr(0, text.find_first_of(blanks));
  text.remove_prefix(word.size());
  return word;
}

// The words between white space of any kind.
[[nodiscard]] inline std::vector<std::string> split_words(std::string_view text) {
  std::vector<std::string> words;
  for (std::string_view word; !(word = take_word(text, SPACE)).empty();) words.emplace_back(word);
  return words;
}

// Whether the whole text is a number that fits.
template <typename Number>
[[nodiscard]] bool parse_number(std::string_view text, Number& out) {
  const char* const end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, out);
  return failure == std::errc{} && stop == end;
}

// The text without any of `blanks` at either end.
[[nodiscard]] inline std::string_view trimmed(std::string_view text,
                                              std::string_view blanks = " \t\r\n") {
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
  return text.substr(0, text.find_last_not_of(blanks) + 1);
}

// Whether the text has no line break and no NUL: what follows one would be a separate line to its
// reader.
[[nodiscard]] inline bool one_line(std::string_view text) {
  return text.find_first_of(LINE_BREAKS) == std::string_view::npos;
}

}  // namespace fenro
