// What kind of interface each is, in the words that the web interface knows.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "common/json.h"
#include "daemons/networkd/rtnetlink.h"

namespace fenro::networkd {

inline constexpr std::string_view BRIDGE = "vswitch";
inline constexpr std::string_view BOND = "bond";

// BRIDGE, BOND, "ethernet", "wireless", "vlan", or "virtualif" for any other that exists in
// software alone.
[[nodiscard]] std::string_view interface_type(const Link& link);

// Those that carry the appliance's own traffic, so that a user can choose among them: no loopback,
// no tunnel, nothing that a bridge or a bond has taken in.
[[nodiscard]] bool is_available(const Link& link);

// In Mbit/s as the driver tells it, 0 where it does not.
[[nodiscard]] long speed_of(const Link& link);

// The link of that index or name, which belongs to `links`; null if there is none.
[[nodiscard]] const Link* find_link(const std::vector<Link>& links, int index);
[[nodiscard]] const Link* find_link(const std::vector<Link>& links, const std::string& name);

// The link's own among all addresses, as replies have them: an array of objects with "ip" and
// "netmask".
[[nodiscard]] Json addresses_of(const Link& link, const std::vector<Address>& addresses);

}  // namespace fenro::networkd
