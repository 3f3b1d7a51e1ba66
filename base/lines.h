// Texts as lines, words and fields: the one reader of them. No stream of the C++ library is used, since
// one of them anywhere in a program makes each start set up all locales.
#pragma once

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>

namespace fenro {

constexpr std::string_view BLANKS = " \t";

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

inline void skip_blanks(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
}

// The next word between blanks, empty at the end of the text.
inline std::string_view take_word(std::string_view& text) {
  skip_blanks(text);
  const std::string_view word = text.substr(0, text.find_first_of(BLANKS));
  text.remove_prefix(word.size());
  return word;
}

// Whether the whole text is a number that fits.
template <typename Number>
[[nodiscard]] bool parse_number(std::string_view text, Number& out) {
  const char* const end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, out);
  return failure == std::errc{} && stop == end;
}

// The text without any of `blanks` at either end.
[[nodiscard]] inline std::string_view trimmed(std::string_view text, std::string_view blanks = " \t\r\n") {
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
  return text.substr(0, text.find_last_not_of(blanks) + 1);
}

// Whether the text has no line break and no NUL: what follows one would be a separate line to its
// reader.
[[nodiscard]] inline bool one_line(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

}  // namespace fenro
