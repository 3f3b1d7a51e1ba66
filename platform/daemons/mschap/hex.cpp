#include "daemons/mschap/hex.h"

#include <charconv>

namespace fenro::mschap {

bool parse_hex(std::string_view text, std::span<std::uint8_t> out) {
  if (text.size() != 2 * out.size()) return false;
  for (std::size_t i = 0; i < out.size(); ++i) {
    const char* begin = text.data() + 2 * i;
    const auto [end, failure] = std::from_chars(begin, begin + 2, out[i], 16);
    if (failure != std::errc{} || end != begin + 2) return false;
  }
  return true;
}

std::string to_hex(std::span<const std::uint8_t> bytes) {
  constexpr std::string_view DIGITS{"0123456789ABCDEF"};
  std::string text;
  for (const std::uint8_t byte : bytes) text += {DIGITS[byte >> 4], DIGITS[byte & 15]};
  return text;
}

}  // namespace fenro::mschap
