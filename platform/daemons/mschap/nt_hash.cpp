#include "daemons/mschap/nt_hash.h"

#include <cstdint>
#include <nettle/md4.h>
#include <vector>

namespace fenro::mschap {
namespace {

// The next code point of `text`, which loses it. False at a byte that is not UTF-8.
bool take_code_point(std::string_view& text, std::uint32_t& out) {
  constexpr std::uint32_t LOWEST[] = {0, 0x80, 0x800, 0x10000};  // by the number of bytes behind the first
  const auto lead = static_cast<std::uint8_t>(text.front());
  const std::size_t more = lead < 0x80 ? 0 : lead >> 5 == 6 ? 1 : lead >> 4 == 14 ? 2 : lead >> 3 == 30 ? 3 : 4;
  if (more == 4 || text.size() <= more) return false;
  out = more == 0 ? lead : lead & (0x3fU >> more);
  for (std::size_t i = 1; i <= more; ++i) {
    const auto byte = static_cast<std::uint8_t>(text[i]);
    if (byte >> 6 != 2) return false;
    out = out << 6 | (byte & 0x3f);
  }
  text.remove_prefix(more + 1);
  return out >= LOWEST[more] && out <= 0x10ffff && (out < 0xd800 || out > 0xdfff);
}

void append_utf16(std::uint32_t code_point, std::vector<std::uint8_t>& out) {
  const auto unit = [&](std::uint32_t value) {
    out.push_back(static_cast<std::uint8_t>(value));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
  };
  if (code_point < 0x10000) return unit(code_point);
  unit(0xd800 + ((code_point - 0x10000) >> 10));
  unit(0xdc00 + ((code_point - 0x10000) & 0x3ff));
}

}  // namespace

Block<16> md4(std::span<const std::uint8_t> bytes) {
  Block<16> digest{};
  md4_ctx context{};
  md4_init(&context);
  md4_update(&context, bytes.size(), bytes.data());
  md4_digest(&context, digest.size(), digest.data());
  return digest;
}

bool nt_hash(std::string_view password, NtHash& out) {
  std::vector<std::uint8_t> utf16;
  while (!password.empty()) {
    std::uint32_t code_point = 0;
    if (!take_code_point(password, code_point)) return false;
    append_utf16(code_point, utf16);
  }
  out = md4(utf16);
  return true;
}

}  // namespace fenro::mschap
