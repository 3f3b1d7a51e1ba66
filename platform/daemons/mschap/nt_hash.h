// The hash of a password that an MS-CHAP login is checked against.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "daemons/mschap/hex.h"

namespace fenro::mschap {

using NtHash = Block<16>;

[[nodiscard]] Block<16> md4(std::span<const std::uint8_t> bytes);

// Computes the hash of a password in UTF-8. Returns false for malformed UTF-8.
[[nodiscard]] bool nt_hash(std::string_view password, NtHash& out);

}  // namespace fenro::mschap
