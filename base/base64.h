// Standard base64 with its padding, on one line.
#pragma once

#include <string>
#include <string_view>

namespace fenro {

[[nodiscard]] std::string to_base64(std::string_view bytes);

// False for anything but whole groups of four, padded at the end alone.
[[nodiscard]] bool parse_base64(std::string_view text, std::string& out);

}  // namespace fenro
