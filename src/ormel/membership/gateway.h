// The default route as the network daemon sees it now.
#pragma once

#include <string>

namespace ormel::pelmar {

// Each is empty, with the cause in the log, when there is none.
[[nodiscard]] std::string get_gateway_ip();
[[nodiscard]] std::string get_gateway_interface_name();
[[nodiscard]] std::string get_gateway_display_name();

}  // namespace ormel::pelmar
