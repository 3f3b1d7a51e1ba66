// What differs between the protocols by a constant alone. Scripts and the web interface get the
// rows from protocol_tables.cpp at build time.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>

#include "base/types.h"

namespace ormel {

// How the live sessions of a server are found and ended.
enum class Sessions {
  PPP,      // a daemon each, by its pid or its interface
  OPENVPN,  // by the server's management, known by address and port of the client
  DROVIK,   // by the server's service, known by their interface
  NONE,     // the server has peers instead
};

struct TunnelFacts {
  TYPE server;
  TYPE client;
  const char* server_word;  // of the option --type
  const char* client_word;  // the same for a client
  const char* section;      // of the server in vpn.conf
  const char*
      client_section;  // of a client, before its index; also its key in the network daemon's tables
  const char* label;   // in notifications and in the label of an interface
  const char* protocol;  // in the registration of an external device
  const char* log_name;  // in log lines about address conflicts
  const char* title;     // in the web interface
  const char*
      server_daemon;  // base name of its program in the process table; null without a process
  const char* server_argument;   // one of its arguments, which no other run of that program has
  const char* client_daemon;     // base name of a client's program
  const char* script;            // init script of the server
  const char* client_script;     // init script of a client
  const char* start;             // action of the client script that connects
  const char* stop;              // action of the client script that disconnects
  const char* interface;         // name of a client's interface, before its number
  int base;                      // that number less the profile's index
  const char* interface_test;    // start of an interface name that shows its kind
  const char* server_interface;  // names of the server's interfaces, before their numbers
  int first_number;              // of those interfaces
  int last_number;
  Sessions sessions;   // how they are found and ended
  bool kicks_on_stop;  // ends its sessions before the server is stopped
  bool logged;         // servers and clients write rows into the connection logs
  int right_field;     // of a user's line in the privilege store, counted after the name; 0 for no
                       // right
  int place;           // in the web interface: order, and number of the curve's colour
};

inline constexpr TunnelFacts TUNNELS[] = {
    {.server = PPTP_SERVER_TYPE,
     .client = PPTP_CLIENT_TYPE,
     .server_word = "SPPTP",
     .client_word = "PPTP",
     .section = "PPTP",
     .client_section = "PPTP_CLIENT",
     .label = "PPTP",
     .protocol = "PPTP",
     .log_name = "PPTP",
     .title = "PPTP",
     .server_daemon = "pptpd",
     .server_argument = "/etc/config/ppp/pptpd.conf",
     .client_daemon = "pppd-pptp",
     .script = "/etc/init.d/vpn_pptp.sh",
     .client_script = "/etc/init.d/vpn_pptp_client.sh",
     .start = "start",
     .stop = "stop",
     .interface = "ppp",
     .base = 1000,
     .interface_test = "ppp10",
     .server_interface = "ppp",
     .first_number = 0,
     .last_number = 999,
     .sessions = Sessions::PPP,
     .kicks_on_stop = true,
     .logged = true,
     .right_field = 1,
     .place = 4},
    {.server = L2TP_SERVER_TYPE,
     .client = L2TP_CLIENT_TYPE,
     .server_word = "SL2TP",
     .client_word = "L2TP",
     .section = "L2TP",
     .client_section = "L2TP_CLIENT",
     .label = "L2TP/IPSec",
     .protocol = "L2TP",
     .log_name = "L2TP",
     .title = "L2TP/IPsec",
     .server_daemon = "xl2tpd",
     .server_argument = "/etc/config/ppp/xl2tpd.conf",
     .client_daemon = "pppd-l2tp",
     .script = "/etc/init.d/vpn_l2tp.sh",
     .client_script = "/etc/init.d/vpn_l2tp_client.sh",
     .start = "start",
     .stop = "stop",
     .interface = "ppp",
     .base = 1250,
     .interface_test = "ppp12",
     .server_interface = "ppp",
     .first_number = 0,
     .last_number = 999,
     .sessions = Sessions::PPP,
     .kicks_on_stop = true,
     .logged = true,
     .right_field = 3,  // existing stores have OpenVPN before L2TP
     .place = 3},
    {.server = OVPN_SERVER_TYPE,
     .client = OVPN_CLIENT_TYPE,
     .server_word = "SOVPN",
     .client_word = "OVPN",
     .section = "OPENVPN",
     .client_section = "OPENVPN_CLIENT",
     .label = "OpenVPN",
     .protocol = "OPENVPN",
     .log_name = "OpenVPN",
     .title = "OpenVPN",
     .server_daemon = "openvpn",
     .server_argument = "/etc/config/openvpn/server.conf",
     .client_daemon = "openvpnclient",
     .script = "/etc/init.d/vpn_openvpn.sh",
     .client_script = "/etc/init.d/vpn_openvpn_client.sh",
     .start = "start",
     .stop = "stop",
     .interface = "tun",
     .base = 2000,
     .interface_test = "tun",
     .server_interface = "tun",
     .first_number = 1000,
     .last_number = 1000,
     .sessions = Sessions::OPENVPN,
     .kicks_on_stop = true,
     .logged = true,
     .right_field = 2,
     .place = 1},
    {.server = DROVIK_SERVER_TYPE,
     .client = DROVIK_CLIENT_TYPE,
     .server_word = "SDROVIK",
     .client_word = "DROVIK",
     .section = "DROVIK",
     .client_section = "DROVIK_CLIENT",
     .label = "Drovik",
     .protocol = "DROVIK",
     .log_name = "Drovik",
     .title = "Drovik",
     .server_daemon = "morvid",
     .server_argument = "DROVIK",
     .client_daemon = "morvic",
     .script = "/etc/init.d/vpn_drovik.sh",
     .client_script = "/etc/init.d/vpn_drovik_client.sh",
     .start = "connect",
     .stop = "disconnect",
     .interface = "dtunc",
     .base = 2500,
     .interface_test = "dtu",
     .server_interface = "dtuns",
     .first_number = 0,
     .last_number = 0,
     .sessions = Sessions::DROVIK,
     .kicks_on_stop = false,
     .logged = true,
     .right_field = 5,
     .place = 5},
    {.server = WIREGUARD_SERVER_TYPE,
     .client = WIREGUARD_CLIENT_TYPE,
     .server_word = "SWG",
     .client_word = "WG",
     .section = "WG",
     .client_section = "WG_CLIENT",
     .label = "WireGuard",
     .protocol = "WIREGUARD",
     .log_name = "WireGuard",
     .title = "WireGuard",
     .server_daemon = nullptr,
     .server_argument = nullptr,
     .client_daemon = nullptr,
     .script = "/etc/init.d/vpn_wireguard.sh",
     .client_script = "/etc/init.d/vpn_wireguard_client.sh",
     .start = "start",
     .stop = "stop",
     .interface = "wgc",
     .base = 3000,
     .interface_test = "wgc",
     .server_interface = "wg",
     .first_number = 0,
     .last_number = 0,
     .sessions = Sessions::NONE,
     .kicks_on_stop = false,
     .logged = false,
     .right_field = 0,
     .place = 2},
};

constexpr int MAX_TUNNEL_INDEX =
    32;  // of a client's profile; interfaces have numbers up to base + 32

// The types, one bit each, of all rows that `chosen` accepts.
template <typename Chosen>
constexpr int types_of(TYPE TunnelFacts::*end, Chosen chosen) {
  int types = NONE_TYPE;
  for (const TunnelFacts& facts : TUNNELS) {
    if (chosen(facts)) types |= facts.*end;
  }
  return types;
}
constexpr int types_of(TYPE TunnelFacts::*end) {
  return types_of(end, [](const TunnelFacts&) { return true; });
}

constexpr int SERVER_TYPES = types_of(&TunnelFacts::server);
constexpr int CLIENT_TYPES = types_of(&TunnelFacts::client);

// The servers that a user has a right to, in the order of the fields of the privilege store; a
// field that is not in use is NONE_TYPE.
constexpr size_t RIGHT_FIELDS = [] {
  int last = 0;
  for (const TunnelFacts& facts : TUNNELS) last = std::max(last, facts.right_field);
  return static_cast<size_t>(last);
}();
constexpr std::array<TYPE, RIGHT_FIELDS> RIGHTS = [] {
  std::array<TYPE, RIGHT_FIELDS> rights{};
  for (const TunnelFacts& facts : TUNNELS) {
    if (facts.right_field > 0) rights[static_cast<size_t>(facts.right_field) - 1] = facts.server;
  }
  return rights;
}();

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

// How the sessions of a server are found and ended; NONE for any other type.
[[nodiscard]] constexpr Sessions sessions_of(TYPE server) {
  const TunnelFacts* facts = is_server(server) ? find_tunnel(server) : nullptr;
  return facts ? facts->sessions : Sessions::NONE;
}

// Name of a client's interface, as "ppp1003"; empty for a type that has none.
[[nodiscard]] inline std::string interface_name(TYPE type, int index) {
  const TunnelFacts* facts = is_client(type) ? find_tunnel(type) : nullptr;
  return facts ? facts->interface + std::to_string(facts->base + index) : std::string();
}

}  // namespace ormel
