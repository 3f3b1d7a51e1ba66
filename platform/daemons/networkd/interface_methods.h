// The methods that describe the appliance's interfaces. Each interface is an object with "ifindex",
// "ifname", "interface_type", "status" ("up" or "down") and "mac".
#pragma once

#include "daemons/networkd/methods.h"

namespace fenro::networkd {

// Takes nothing: an array of those that can be chosen.
[[nodiscard]] Answer get_available_interface_list(State& state, const json_t* request);

// {"ifindex":NUMBER}: the interface with "max_speed" in Mbit/s (0: not known) and "IPv4", an array
// of objects with "ip" and "netmask"; the interfaces that a bridge has; those that a bond has.
[[nodiscard]] Answer get_interface_status(State& state, const json_t* request);
[[nodiscard]] Answer get_bridge_members(State& state, const json_t* request);
[[nodiscard]] Answer get_bonding_slaves(State& state, const json_t* request);

// {"ip":ADDRESS}: ERROR_DUPLICATE and the interface that has it already. This system's own tunnels
// do not count.
[[nodiscard]] Answer check_ip_duplicate(State& state, const json_t* request);

}  // namespace fenro::networkd
