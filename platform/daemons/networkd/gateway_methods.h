// The methods of the default gateway.
#pragma once

#include "daemons/networkd/methods.h"

namespace fenro::networkd {

// Takes nothing: the policy's file has changed.
[[nodiscard]] Answer update_vpn_gw(State& state, const json_t* request);

// Takes nothing: an array of the interfaces by which traffic leaves, the one in use first. Each is
// an object with "ifindex", "ifname", "interface_type" ("VPN" for a tunnel), "gateway" (empty for
// none) and "status", an object with "display_name" (the profile's name for a tunnel) and "IPv4",
// an array of objects with "ip" and "netmask".
[[nodiscard]] Answer get_current_gw_info(State& state, const json_t* request);

// Takes nothing: the guard, an object with "mode" ("off", "on", "strict"), "state" ("off", "idle"
// while the policy names no gateway, "paused", "guarding" while a tunnel carries the traffic,
// "holding" without one, "failed" when the kernel lacks the filter), "since", "interface",
// "stopped" (packets by "ipv4", "ipv6", "dns") and "lan" (networks left open).
[[nodiscard]] Answer guard_state(State& state, const json_t* request);

// {"key":"gateway_policy"}: an object with that key, "1" if the host got its default route by
// itself (DHCP or router advertisements), "2" if somebody set it.
[[nodiscard]] Answer get_global_config(State& state, const json_t* request);

}  // namespace fenro::networkd
