// What the daemons read from vpn.conf, checked. Keys and passwords come by this way alone.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <fenro/conf.h>

#include "daemons/drovik/frames.h"

namespace fenro::drovik {

constexpr const char* VPN_CONF = "/etc/config/vpn.conf";

struct ServerSettings {
  std::uint16_t port = 0;
  std::string psk{};
  Ipv4 gateway = 0;  // our own address in the tunnel: the network's first
  Ipv4 first = 0;    // of the pool
  Ipv4 last = 0;
  std::uint8_t prefix = 24;
  std::size_t maximum = 0;
  std::vector<Ipv4> name_servers{};
  bool debug = false;
};

struct ClientSettings {
  std::string server_address{};  // what "Server Address" resolved to when the profile was saved;
                                 // may be empty
  std::string server_name{};
  std::uint16_t port = 0;
  std::string psk{};
  std::string user{};
  std::string password{};
  bool reconnect = true;
  bool debug = false;
};

// `resolver` is the text of resolv.conf: its servers are handed to clients unless there is a manual
// one. False tells in `why` which key is of no use.
[[nodiscard]] bool read_server(Conf_dir* conf, const char* section, std::string_view resolver,
                               ServerSettings& out, std::string& why);
[[nodiscard]] bool read_client(Conf_dir* conf, const char* section, ClientSettings& out,
                               std::string& why);

}  // namespace fenro::drovik
