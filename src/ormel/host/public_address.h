// The name or address at which others reach this host: set once, and used in each configuration
// that devices and users get.
#pragma once

#include <string>

namespace ormel::system {

// Returns what is stored; empty without one.
[[nodiscard]] std::string public_address();

// Stores a name or an address. An empty text removes it. Returns 0, ERR_VALUE for a text that is
// neither, or ERR_SAVE_FILE.
[[nodiscard]] int store_public_address(const std::string& address);

// Returns whether a text is a host name, an IPv4 or an IPv6 address, without a port.
[[nodiscard]] bool is_host(const std::string& text);

// Returns whether an address leads here only from the same network: a private one, or a name that
// is in no public domain.
[[nodiscard]] bool works_at_home_only(const std::string& host);

}  // namespace ormel::system
