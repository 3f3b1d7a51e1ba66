// Names that cannot be guessed.
#pragma once

#include <string>
#include <string_view>

namespace fenro {

constexpr std::string_view NAME_CHARACTERS =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

// Fills the text with characters of NAME_CHARACTERS from the kernel's random source. False when
// that fails.
[[nodiscard]] bool random_name(std::string& name);

}  // namespace fenro
