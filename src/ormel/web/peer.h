// Changing the peers of the WireGuard server, for more routes than those of its administrators.
#pragma once

#include <memory>
#include <string>

#include "ormel/base/handle.h"
#include "ormel/config/record.h"
#include "ormel/drivers/wireguard/peers.h"

namespace ormel::cgi::peer {

// Makes other changes of peers wait while it lives, ten seconds at most, since each takes the next
// free index and address. A host without the folder of locks has no lock. Grants are locked before
// it, never after.
class Turn {
 public:
  Turn();

 private:
  Fd fd_;
};

// The stored server as a work record; null without one.
[[nodiscard]] std::unique_ptr<ormel::config::PolyConfig> stored_server();

// Each returns 0 or an ERROR_CODE. The caller holds a Turn. `server` is changed.
[[nodiscard]] int add(ormel::config::PolyConfig& server, const wireguard::Peer& peer);
// Removes the peer with the key, and its limit.
[[nodiscard]] int remove(const std::string& key);

}  // namespace ormel::cgi::peer
