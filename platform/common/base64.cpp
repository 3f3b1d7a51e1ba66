#include "common/base64.h"

#include <cstddef>
#include <cstdint>

namespace fenro {
namespace {

constexpr std::string_view DIGITS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t BYTES = 3;
constexpr std::size_t LETTERS = 4;
constexpr unsigned BITS = 6;  // of a digit

}  // namespace

std::string to_base64(std::string_view bytes) {
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += BYTES) {
    const std::string_view group = bytes.substr(at, BYTES);
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < BYTES; ++i)
      bits = bits << 8 | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
    for (std::size_t i = 0; i < LETTERS; ++i)
      text += i > group.size() ? '=' : DIGITS[bits >> (BITS * (LETTERS - 1 - i)) & (DIGITS.size() - 1)];
  }
  return text;
}

bool parse_base64(std::string_view text, std::string& out) {
  out.clear();
  if (text.size() % LETTERS != 0) return false;
  while (text.ends_with('=') && text.size() % LETTERS != LETTERS - 2) text.remove_suffix(1);
  std::uint32_t bits = 0;
  unsigned held = 0;
  for (const char letter : text) {
    const std::size_t digit = DIGITS.find(letter);
    if (digit == std::string_view::npos) return false;
    bits = bits << BITS | static_cast<std::uint32_t>(digit);
    held += BITS;
    if (held >= 8) out += static_cast<char>(bits >> (held -= 8) & 0xff);
  }
  return true;
}

}  // namespace fenro
