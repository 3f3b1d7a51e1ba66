// Standard base64 with its padding, on one line.
#pragma once

#include <string>
#include <string_view>

namespace fenro {

[[nodiscard]] std::string to_base64(std::string_view bytes);

// Returns false for anything but whole groups of four, padded only at the end.
[[nodiscard]] bool parse_base64(std::string_view text, std::string& out);

}  // namespace fenro
