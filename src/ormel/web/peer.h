// Changing the peers of the WireGuard server, for more routes than those of its administrators.
#pragma once

#include <memory>
#include <string>

#include "ormel/base/handle.h"
#include "ormel/config/record.h"
#include "ormel/drivers/wireguard/peers.h"

namespace ormel::cgi::peer {

// Keeps other changes of peers waiting as long as it lives, ten seconds at most: each takes the
// next free place, and an own device the next free address. A host without the folder of locks has
// none. Who needs the store of grants as well has that first.
class Turn {
 public:
  Turn();

 private:
  Fd fd_;
};

// The stored server as a work record; null without one.
[[nodiscard]] std::unique_ptr<ormel::config::PolyConfig> stored_server();

// Each returns 0 or an ERROR_CODE, and is for who has the turn. `server` is changed meanwhile.
[[nodiscard]] int add(ormel::config::PolyConfig& server, const wireguard::Peer& peer);
// Removes the peer with the key, and its limit.
[[nodiscard]] int remove(const std::string& key);

}  // namespace ormel::cgi::peer
