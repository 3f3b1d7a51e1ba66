// The sockets of an OpenVPN client daemon. It takes one client at a time, and its attendant must
// not miss a line, so the attendant keeps the daemon's own socket and offers the one that
// ormel.cauth connects to.
#pragma once

#include <string>

namespace fenro::openvpn {

// Where the daemon listens; the start script removes it.
[[nodiscard]] inline std::string daemon_socket(int slot) {
  return "/run/fenro/openvpn-client" + std::to_string(slot) + ".sock";
}

// Where ormel.cauth connects. A stored profile names it as the daemon's.
[[nodiscard]] inline std::string login_socket(int slot) {
  return "/tmp/openvpn.client" + std::to_string(slot) + ".sock";
}

}  // namespace fenro::openvpn
