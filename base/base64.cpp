#include "base/base64.h"

#include <cstdint>
#include <nettle/base64.h>

namespace fenro {
namespace {

constexpr std::size_t GROUP = 4;  // letters that stand for three bytes
constexpr std::string_view LETTERS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";

}  // namespace

std::string to_base64(std::string_view bytes) {
  std::string text(BASE64_ENCODE_RAW_LENGTH(bytes.size()), '\0');
  base64_encode_raw(text.data(), bytes.size(), reinterpret_cast<const std::uint8_t*>(bytes.data()));
  return text;
}

bool parse_base64(std::string_view text, std::string& out) {
  out.clear();
  // The decoder itself skips blanks.
  if (text.size() % GROUP != 0 || text.find_first_not_of(LETTERS) != std::string_view::npos)
    return false;
  std::size_t length = BASE64_DECODE_LENGTH(text.size());
  out.resize(length);
  base64_decode_ctx context;
  base64_decode_init(&context);
  auto* const bytes = reinterpret_cast<std::uint8_t*>(out.data());
  const bool good = base64_decode_update(&context, &length, bytes, text.size(), text.data()) != 0 &&
                    base64_decode_final(&context) != 0;
  out.resize(good ? length : 0);
  return good;
}

}  // namespace fenro
