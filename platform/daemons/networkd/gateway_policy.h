// The default gateway policy as the network daemon reads it from /etc/config/vpn_options.conf.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace fenro::networkd {

struct GatewayPolicy {
  std::string
      first{};  // interface of the tunnel that carries the appliance's own traffic, empty for none
  std::string second{};  // of the one that takes over, empty for none
  bool snat = false;     // what leaves by the gateway takes its address
  // How long the first must have been well again before it takes back; empty: it never does.
  std::optional<std::chrono::minutes> reversion{};
  bool damaged = false;  // the file is there and holds no document
};

// The interface of a client tunnel by its key, as "OPENVPN_CLIENT3"; empty for anything else.
[[nodiscard]] std::string tunnel_interface(std::string_view key);

// The other way round.
[[nodiscard]] std::string tunnel_key(const std::string& interface);

// A file that is missing or holds no policy is a policy that is off. Nothing waits for the file's
// lock here, since any program may hold it: every writer tells us once it is done, and then the
// file is whole.
[[nodiscard]] GatewayPolicy read_gateway_policy(const char* path);

}  // namespace fenro::networkd
