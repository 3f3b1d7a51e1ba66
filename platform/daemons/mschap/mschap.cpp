#include "daemons/mschap/mschap.h"

#include <algorithm>
#include <nettle/des.h>
#include <span>
#include <tuple>

namespace fenro::mschap {
namespace {

// 56 bits spread over 8 bytes; DES ignores the lowest bit of each.
Block<8> des_key(std::span<const std::uint8_t> seven) {
  std::uint64_t bits = 0;
  for (const std::uint8_t byte : seven) bits = bits << 8 | byte;
  Block<8> key{};
  for (std::size_t i = 0; i < key.size(); ++i)
    key[i] = static_cast<std::uint8_t>((bits >> (49 - 7 * i) & 0x7f) << 1);
  return key;
}

void des(const Block<8>& key, const Challenge& block, std::uint8_t* out) {
  des_ctx context{};
  std::ignore = des_set_key(&context, key.data());  // which only warns of weak keys
  des_encrypt(&context, block.size(), out, block.data());
}

}  // namespace

void expected_response(const NtHash& hash, const Challenge& challenge, Response& out) {
  Block<21> keys{};  // the hash, filled up with zeros to three keys of seven bytes
  std::copy(hash.begin(), hash.end(), keys.begin());
  for (std::size_t i = 0; i < 3; ++i)
    des(des_key(std::span{keys}.subspan(7 * i, 7)), challenge, out.data() + 8 * i);
}

Block<16> session_key(const NtHash& hash) {
  return md4(hash);
}

}  // namespace fenro::mschap
