#include "daemons/mschap/nt_hash.h"

#include <cstdint>
#include <nettle/md4.h>
#include <vector>

#include "base/utf8.h"

namespace fenro::mschap {
namespace {

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
