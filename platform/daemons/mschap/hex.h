// Bytes of a fixed number, and their forms in text.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace fenro::mschap {

template <std::size_t N>
using Block = std::array<std::uint8_t, N>;

// Exactly two hexadecimal digits a byte, in either case.
[[nodiscard]] bool parse_hex(std::string_view text, std::span<std::uint8_t> out);
[[nodiscard]] std::string to_hex(std::span<const std::uint8_t> bytes);

}  // namespace fenro::mschap
