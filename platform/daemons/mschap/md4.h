// The MD4 digest, which MS-CHAP is built on. libcrypto has it in a provider that hosts need not have.
#pragma once

#include "daemons/mschap/hex.h"

namespace fenro::mschap {

[[nodiscard]] Block<16> md4(std::span<const std::uint8_t> message);

}  // namespace fenro::mschap
