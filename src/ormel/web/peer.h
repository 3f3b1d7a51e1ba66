// Changing the peers of the WireGuard server, for more routes than those of its administrators.
#pragma once

#include <memory>
#include <string>

#include "ormel/config/record.h"
#include "ormel/drivers/wireguard/peers.h"

namespace ormel::cgi::peer {

// The stored server as a work record; null without one.
[[nodiscard]] std::unique_ptr<ormel::config::PolyConfig> stored_server();

// Each returns 0 or an ERROR_CODE. `server` is changed meanwhile.
[[nodiscard]] int add(ormel::config::PolyConfig& server, const wireguard::Peer& peer);
// Removes the peer with the key, and its limit.
[[nodiscard]] int remove(const std::string& key);

}  // namespace ormel::cgi::peer
