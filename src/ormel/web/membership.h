// The membership over the web: the whole road of a join from the first version check to leaving
// again.
#pragma once

#include <string_view>

namespace ormel::cgi::pelmar {

// Up to 15 digits and points, three of which are points; values of the fields are not looked at.
[[nodiscard]] bool is_valid_ipv4_format(std::string_view text);
// Letters, digits, "-" and "_" alone, and at least one of them.
[[nodiscard]] bool is_alphanumeric_safe(std::string_view text);
[[nodiscard]] bool has_path_traversal(std::string_view text);

}  // namespace ormel::cgi::pelmar
