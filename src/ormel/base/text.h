// Small helpers on text.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace ormel {

// Returns the length in bytes of a UTF-8 sequence by its first byte; 6 for a byte that cannot be
// first.
[[nodiscard]] int mb_size(const char& lead);

// The longest prefix of `text` of at most `limit` bytes that ends on a whole sequence.
[[nodiscard]] std::string mb_string(const std::string& text, unsigned int limit);

// Erase bytes that are not visible from the start, the end, or both; `text` itself is changed and
// returned.
std::string& ltrim(std::string& text);
std::string& rtrim(std::string& text);
std::string& trim(std::string& text);

// The trimmed copy of `length` bytes at `text`.
[[nodiscard]] std::string ntrim(const char* text, unsigned int length);

// Erases all leading bytes equal to `c`.
std::string& lstrip(std::string& text, char c);

// Return copies in one case, by the C locale.
[[nodiscard]] std::string to_upper(std::string text);
[[nodiscard]] std::string to_lower(std::string text);

// Returns the leading decimal number of a text, clamped to the range of int; 0 without one, and for
// null.
[[nodiscard]] int to_int(const char* text);

// "2026-11-25 17:12:03" in the host's time zone, for seconds since 1970; empty for no moment of a
// calendar.
[[nodiscard]] std::string clock_text(std::int64_t seconds);

// The text in a field of fixed size, which may lack its closing zero.
template <size_t Size>
[[nodiscard]] std::string field_text(const char (&field)[Size]) {
  return {field, strnlen(field, Size)};
}

// Fills such a field with `text`, cut so that a closing zero follows it.
template <size_t Size>
void fill_field(char (&field)[Size], std::string_view text) {
  field[text.copy(field, Size - 1)] = '\0';
}

// Splits in place at the last `mark`: ends `text` there and returns what follows it. Null, and
// `text` as it was, for a null text, one without `mark`, and one that would leave either side
// empty.
[[nodiscard]] char* cut_pattern(char* text, char mark);

}  // namespace ormel
