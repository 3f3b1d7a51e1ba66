// One-time codes by time (RFC 6238): HMAC-SHA-1, six digits, a new code every 30 seconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace fenro::totp {

inline constexpr std::int64_t PERIOD = 30;  // seconds
inline constexpr std::size_t DIGITS = 6;
inline constexpr std::size_t SECRET_BYTES = 20;

// Counts periods since the epoch; a code belongs to one step.
using Step = std::int64_t;

[[nodiscard]] constexpr Step step_at(std::int64_t seconds) {
  return seconds / PERIOD;
}

// Whether codes and digests can be computed: libcrypto is loaded on first use.
[[nodiscard]] bool is_available();

// The code of a step, as DIGITS digits; empty without the library. `secret` are bytes.
[[nodiscard]] std::string code_at(std::string_view secret, Step step);

// Whether the text has the form of a code.
[[nodiscard]] bool is_code(std::string_view text);

// Base32 in upper case without padding, as authenticator apps take it.
[[nodiscard]] std::string to_base32(std::string_view bytes);

// Returns false for any character outside the alphabet, or a length that no bytes have.
[[nodiscard]] bool parse_base32(std::string_view text, std::string& out);

// The address that an authenticator app reads from a QR code. `secret` is base32; the two names may
// hold any bytes.
[[nodiscard]] std::string uri(std::string_view issuer, std::string_view account,
                              std::string_view secret);

// HMAC-SHA-1 in lower-case hexadecimal; empty without the library.
[[nodiscard]] std::string digest_of(std::string_view key, std::string_view text);

// Bytes of the kernel's random source; empty when that fails.
[[nodiscard]] std::string random_bytes(std::size_t count);

// Compares in a time that depends on the lengths alone.
[[nodiscard]] bool same(std::string_view one, std::string_view other);

// The text with each byte outside letters, digits, '.', '-' and '_' as %XX.
[[nodiscard]] std::string percent_encoded(std::string_view text);

}  // namespace fenro::totp
