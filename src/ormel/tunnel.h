// What differs between the protocols by a constant alone.
#pragma once

#include <string>

#include "ormel/types.h"

namespace ormel {

struct TunnelFacts {
  TYPE server;
  TYPE client;
  const char* section;         // of the server in vpn.conf
  const char* client_section;  // of a client, before its index; also its key in the network daemon's tables
  const char* label;           // in notifications and in the label of an interface
  const char* protocol;        // in the registration of an external device
  const char* log_name;        // in log lines about address conflicts
  const char* script;          // init script of the server
  const char* client_script;   // init script of a client
  const char* start;           // action of the client script that connects
  const char* stop;            // action of the client script that disconnects
  const char* interface;       // name of a client's interface, before its number
  int base;                    // that number less the profile's index
  const char* interface_test;  // start of an interface name by which its kind is told
  bool kicks_on_stop;          // a server that is stopped first throws its sessions out
};

inline constexpr TunnelFacts TUNNELS[] = {
    // clang-format off
    {PPTP_SERVER_TYPE,      PPTP_CLIENT_TYPE,      "PPTP",    "PPTP_CLIENT",    "PPTP",       "PPTP",      "PPTP",      "/etc/init.d/vpn_pptp.sh",      "/etc/init.d/vpn_pptp_client.sh",      "start",   "stop",       "ppp",   1000, "ppp10", true},
    {L2TP_SERVER_TYPE,      L2TP_CLIENT_TYPE,      "L2TP",    "L2TP_CLIENT",    "L2TP/IPSec", "L2TP",      "L2TP",      "/etc/init.d/vpn_l2tp.sh",      "/etc/init.d/vpn_l2tp_client.sh",      "start",   "stop",       "ppp",   1250, "ppp12", true},
    {OVPN_SERVER_TYPE,      OVPN_CLIENT_TYPE,      "OPENVPN", "OPENVPN_CLIENT", "OpenVPN",    "OPENVPN",   "OpenVPN",   "/etc/init.d/vpn_openvpn.sh",   "/etc/init.d/vpn_openvpn_client.sh",   "start",   "stop",       "tun",   2000, "tun",   true},
    {DROVIK_SERVER_TYPE,    DROVIK_CLIENT_TYPE,    "DROVIK",  "DROVIK_CLIENT",  "Drovik",     "DROVIK",    "Drovik",    "/etc/init.d/vpn_drovik.sh",    "/etc/init.d/vpn_drovik_client.sh",    "connect", "disconnect", "dtunc", 2500, "dtu",   false},
    {WIREGUARD_SERVER_TYPE, WIREGUARD_CLIENT_TYPE, "WG",      "WG_CLIENT",      "WireGuard",  "WIREGUARD", "WireGuard", "/etc/init.d/vpn_wireguard.sh", "/etc/init.d/vpn_wireguard_client.sh", "start",   "stop",       "wgc",   3000, "wgc",   false},
    // clang-format on
};

// The row of a server's or a client's type; null for any other.
[[nodiscard]] constexpr const TunnelFacts* find_tunnel(TYPE type) {
  for (const TunnelFacts& facts : TUNNELS) {
    if (facts.server == type || facts.client == type) return &facts;
  }
  return nullptr;
}

// The row of a type that is known to have one, as that of a record.
[[nodiscard]] constexpr const TunnelFacts& tunnel_of(TYPE type) {
  const TunnelFacts* facts = find_tunnel(type);
  return facts ? *facts : TUNNELS[0];
}

// Name of a client's interface, as "ppp1003"; empty for a type that has none.
[[nodiscard]] inline std::string interface_name(TYPE type, int index) {
  const TunnelFacts* facts = is_client(type) ? find_tunnel(type) : nullptr;
  return facts ? facts->interface + std::to_string(facts->base + index) : std::string();
}

}  // namespace ormel
