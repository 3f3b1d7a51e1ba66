#include "base/totp.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <dlfcn.h>
#include <sys/random.h>

#include <openssl/hmac.h>

namespace fenro::totp {
namespace {

constexpr std::string_view LETTERS = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
constexpr unsigned BITS = 5;  // of one letter
constexpr unsigned BYTE = 8;
constexpr std::string_view PLAIN =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-_";

using Digest = std::array<unsigned char, 20>;

// Loaded by a run that computes a code. It stays loaded, since it registers handlers that run at
// exit.
struct CryptoApi {
  decltype(HMAC)* hmac = nullptr;
  decltype(EVP_sha1)* sha1 = nullptr;

  CryptoApi() {
    void* const library = dlopen("libcrypto.so.3", RTLD_NOW | RTLD_LOCAL);
    if (!library) return;
    hmac = reinterpret_cast<decltype(hmac)>(dlsym(library, "HMAC"));
    sha1 = reinterpret_cast<decltype(sha1)>(dlsym(library, "EVP_sha1"));
  }
};

const CryptoApi& crypto() {
  static const CryptoApi api;
  return api;
}

const unsigned char* bytes_of(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

// False without the library.
bool hmac(std::string_view key, std::string_view text, Digest& digest) {
  return is_available() &&
         crypto().hmac(crypto().sha1(), key.data(), static_cast<int>(key.size()), bytes_of(text),
                       text.size(), digest.data(), nullptr) != nullptr;
}

std::string big_endian(Step step) {
  std::string bytes(sizeof step, '\0');
  auto rest = static_cast<std::uint64_t>(step);
  for (auto at = bytes.rbegin(); at != bytes.rend(); ++at, rest >>= BYTE)
    *at = static_cast<char>(rest & 0xffU);
  return bytes;
}

// The 31 bits at the offset in the last four bits.
std::uint32_t truncated(const Digest& digest) {
  const std::size_t at = digest.back() & 0xfU;
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < sizeof value; ++i) value = value << BYTE | digest.at(at + i);
  return value & 0x7fffffffU;
}

}  // namespace

bool is_available() {
  return crypto().hmac && crypto().sha1;
}

std::string code_at(std::string_view secret, Step step) {
  Digest digest{};
  if (!hmac(secret, big_endian(step), digest)) return {};
  std::uint32_t value = truncated(digest);
  std::string code(DIGITS, '0');
  for (auto at = code.rbegin(); at != code.rend(); ++at, value /= 10)
    *at = static_cast<char>('0' + value % 10);
  return code;
}

bool is_code(std::string_view text) {
  return text.size() == DIGITS && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string to_base32(std::string_view bytes) {
  std::string text;
  unsigned held = 0, bits = 0;
  for (const char c : bytes) {
    held = held << BYTE | static_cast<unsigned char>(c);
    for (bits += BYTE; bits >= BITS; bits -= BITS)
      text += LETTERS[held >> (bits - BITS) & (LETTERS.size() - 1)];
    held &= 0xffU;
  }
  if (bits > 0) text += LETTERS[held << (BITS - bits) & (LETTERS.size() - 1)];
  return text;
}

bool parse_base32(std::string_view text, std::string& out) {
  out.clear();
  unsigned held = 0, bits = 0;
  for (const char c : text) {
    const std::size_t value = LETTERS.find(c);
    if (value == std::string_view::npos) return false;
    held = (held << BITS | static_cast<unsigned>(value)) & 0xfffU;
    bits += BITS;
    if (bits < BYTE) continue;
    bits -= BYTE;
    out += static_cast<char>(held >> bits & 0xffU);
  }
  return bits < BITS && (held & ((1U << bits) - 1)) == 0;
}

std::string uri(std::string_view issuer, std::string_view account, std::string_view secret) {
  const std::string by = percent_encoded(issuer);
  return "otpauth://totp/" + by + ':' + percent_encoded(account) +
         "?secret=" + std::string(secret) + "&issuer=" + by +
         "&algorithm=SHA1&digits=" + std::to_string(DIGITS) + "&period=" + std::to_string(PERIOD);
}

std::string digest_of(std::string_view key, std::string_view text) {
  constexpr std::string_view HEX = "0123456789abcdef";
  std::string out;
  Digest digest{};
  if (!hmac(key, text, digest)) return {};
  for (const unsigned char byte : digest) {
    out += HEX[byte >> 4U];
    out += HEX[byte & 0xfU];
  }
  return out;
}

std::string random_bytes(std::size_t count) {
  std::string bytes(count, '\0');
  for (std::size_t filled = 0; filled < count;) {
    const ssize_t n = getrandom(bytes.data() + filled, count - filled, 0);
    if (n < 0 && errno != EINTR) return {};
    filled += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
  }
  return bytes;
}

bool same(std::string_view one, std::string_view other) {
  if (one.size() != other.size()) return false;
  unsigned differing = 0;
  for (std::size_t i = 0; i < one.size(); ++i)
    differing |= static_cast<unsigned char>(one[i]) ^ static_cast<unsigned char>(other[i]);
  return differing == 0;
}

std::string percent_encoded(std::string_view text) {
  constexpr std::string_view HEX = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    if (PLAIN.find(c) != std::string_view::npos) {
      out += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    out += '%';
    out += HEX[byte >> 4U];
    out += HEX[byte & 0xfU];
  }
  return out;
}

}  // namespace fenro::totp
