#include "daemons/mschap/hex.h"

#include <charconv>

#include <openssl/evp.h>

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

bool parse_base64(std::string_view text, std::string& out) {
  constexpr std::size_t LONGEST = 4096;
  if (text.size() % 4 != 0 || text.size() > LONGEST) return false;
  out.resize(text.size() / 4 * 3);
  const int length =
      EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()), reinterpret_cast<const unsigned char*>(text.data()),
                      static_cast<int>(text.size()));
  if (length < 0) return false;
  std::size_t padding = 0;
  while (padding < 2 && text.ends_with(std::string(padding + 1, '='))) ++padding;
  out.resize(static_cast<std::size_t>(length) - (text.empty() ? 0 : padding));
  return true;
}

}  // namespace fenro::mschap
