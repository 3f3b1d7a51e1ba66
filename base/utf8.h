// Text in UTF-8, and text that ought to be.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace fenro {

// Takes the first code point off a text, which must not be empty. Returns false, with the text as
// it was, at a byte that begins no well-formed sequence.
[[nodiscard]] inline bool take_code_point(std::string_view& text, std::uint32_t& out) {
  constexpr std::uint32_t LOWEST[] = {0, 0x80, 0x800,
                                      0x10000};  // by the number of bytes after the first
  constexpr std::uint32_t LAST = 0x10ffff, FIRST_SURROGATE = 0xd800, LAST_SURROGATE = 0xdfff;
  const auto lead = static_cast<std::uint8_t>(text.front());
  const std::size_t more = lead < 0x80       ? 0
                           : lead >> 5 == 6  ? 1
                           : lead >> 4 == 14 ? 2
                           : lead >> 3 == 30 ? 3
                                             : 4;
  if (more == 4 || text.size() <= more) return false;
  out = more == 0 ? lead : lead & (0x3fU >> more);
  for (std::size_t i = 1; i <= more; ++i) {
    const auto byte = static_cast<std::uint8_t>(text[i]);
    if (byte >> 6 != 2) return false;
    out = out << 6 | (byte & 0x3f);
  }
  if (out < LOWEST[more] || out > LAST || (out >= FIRST_SURROGATE && out <= LAST_SURROGATE))
    return false;
  text.remove_prefix(more + 1);
  return true;
}

// Returns the text with U+FFFD in the place of each byte that is not part of a well-formed
// sequence.
[[nodiscard]] inline std::string valid_utf8(std::string_view text) {
  constexpr std::string_view REPLACEMENT_CHARACTER = "\xef\xbf\xbd";
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const char* const start = text.data();
    std::uint32_t code_point = 0;
    if (take_code_point(text, code_point)) {
      out.append(start, text.data());
    } else {
      out += REPLACEMENT_CHARACTER;
      text.remove_prefix(1);
    }
  }
  return out;
}

}  // namespace fenro
