// The member's one address on the overlay: it must clash neither with a subnet of this device nor
// with any other of the organisation.
//
// Each operation gives 0 or an ERROR_CODE, logged.
#pragma once

#include <string>

namespace ormel::pelmar {

// Whether an address is in a subnet of this device. One that could not be checked counts as one.
[[nodiscard]] bool is_local_address(const std::string& ip);

// Asks the cloud about an address. On a conflict for which the cloud has a suggestion `ip` becomes
// that, with the result 0: a caller sees the conflict by comparing with its own copy. May give a
// code of libcurl.
[[nodiscard]] int pelmar_api_ip_subnet_check(std::string& ip);

// Whether the pool of an enabled VPN server holds the address.
[[nodiscard]] bool conflicts_with_vpn_server(const std::string& ip);

// Gives a running member a new address. What is stored stays so when the agent fails to take it up.
[[nodiscard]] int modify_virtual_ip(const std::string& ip);

}  // namespace ormel::pelmar
