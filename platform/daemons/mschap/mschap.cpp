#include "daemons/mschap/mschap.h"

#include <algorithm>
#include <memory>
#include <vector>

#include <openssl/evp.h>

#include "common/handle.h"
#include "daemons/mschap/md4.h"

namespace fenro::mschap {
namespace {

using Cipher = std::unique_ptr<EVP_CIPHER_CTX, FreeWith<EVP_CIPHER_CTX_free>>;

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

// 56 bits spread over 8 bytes; DES ignores the lowest bit of each.
Block<8> des_key(std::span<const std::uint8_t> seven) {
  std::uint64_t bits = 0;
  for (const std::uint8_t byte : seven) bits = bits << 8 | byte;
  Block<8> key{};
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<std::uint8_t>((bits >> (49 - 7 * i) & 0x7f) << 1);
  return key;
}

// One block of DES, as triple DES with one key three times: plain DES has left libcrypto's default provider.
bool des(const Block<8>& key, const Challenge& block, std::uint8_t* out) {
  Block<24> triple{};
  for (std::size_t i = 0; i < triple.size(); ++i) triple[i] = key[i % key.size()];
  const Cipher cipher{EVP_CIPHER_CTX_new()};
  int length = 0;
  return cipher && EVP_EncryptInit_ex2(cipher.get(), EVP_des_ede3_ecb(), triple.data(), nullptr, nullptr) == 1 &&
         EVP_CIPHER_CTX_set_padding(cipher.get(), 0) == 1 &&
         EVP_EncryptUpdate(cipher.get(), out, &length, block.data(), static_cast<int>(block.size())) == 1 &&
         length == static_cast<int>(block.size());
}

}  // namespace

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

bool expected_response(const NtHash& hash, const Challenge& challenge, Response& out) {
  Block<21> keys{};  // the hash, filled up with zeros to three keys of seven bytes
  std::copy(hash.begin(), hash.end(), keys.begin());
  for (std::size_t i = 0; i < 3; ++i)
    if (!des(des_key(std::span{keys}.subspan(7 * i, 7)), challenge, out.data() + 8 * i)) return false;
  return true;
}

Block<16> session_key(const NtHash& hash) {
  return md4(hash);
}

}  // namespace fenro::mschap
