// What a new device of the WireGuard server gets: an address, keys, and the file with both.
#pragma once

#include <string>

#include "ormel/drivers/wireguard/peers.h"

namespace ormel::wireguard {

// The lowest address of the server's network that is neither the server's nor another peer's;
// empty when none is left.
[[nodiscard]] std::string free_address(const PeerFile& peers, const std::string& server_ip,
                                       int server_mask);

// A new pre-shared key; empty when the system has no random bytes.
[[nodiscard]] std::string make_psk();

// A name as the peer file keeps it.
[[nodiscard]] std::string encoded_name(const std::string& name);

// The server as a device sees it.
struct Hub {
  std::string key{};   // public
  std::string host{};  // name or address
  int port = 0;
  std::string ip{};  // inside
  int mask = 24;
  std::string dns{};  // empty for none
};
struct Device {
  std::string address{};
  std::string private_key{};
  std::string psk{};  // empty for none
  bool all = false;   // all traffic goes through the tunnel, not only that of the server's network
};

// The configuration file of the device, and the only place of its private key.
[[nodiscard]] std::string configuration(const Hub& hub, const Device& device);

}  // namespace ormel::wireguard
