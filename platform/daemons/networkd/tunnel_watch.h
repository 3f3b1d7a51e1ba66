// Whether traffic passes through a tunnel. Signs of life, in this order: bytes that come out of it,
// the age of WireGuard's last handshake and what its peer has sent, what the daemon of the tunnel
// has heard from its server, and at last an answer to an echo. Silence counts as death only where
// the far end used to answer echoes, or where what others send stays without an answer for long:
// many never answer an echo.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/handle.h"
#include "daemons/networkd/gateway_choice.h"
#include "daemons/networkd/rtnetlink.h"

namespace fenro::networkd {

// The address to ask: the far end of a point-to-point link, else the first host of the network that
// is not ourselves.
[[nodiscard]] std::uint32_t far_end(const Address& address);

// Of a table as `wg show INTERFACE FIELD` prints it, a peer a line: the largest number in a column,
// 0 without one.
[[nodiscard]] std::uint64_t largest_of(std::string_view table, std::size_t column);

class TunnelWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // To be asked about once a second; each time the far end is asked too.
  [[nodiscard]] Health look(const std::string& interface, const std::vector<Link>& links,
                            const std::vector<Address>& addresses, Clock::time_point now);

 private:
  struct Seen {
    int index = 0;  // of the interface; another one of the same name starts afresh
    std::uint64_t rx_bytes = 0;
    Clock::time_point heard{};
    std::uint64_t tx_heard = 0;  // bytes sent when it was last heard
    std::uint64_t peer_bytes = 0;
    bool has_daemon = false;  // whose word counts
    bool answers = false;     // its far end has answered an echo before
    Fd echo{};                // where answers to echoes come in
  };
  // Seconds since the daemon of the tunnel has heard from its server; nothing where it does not
  // say.
  [[nodiscard]] static std::optional<std::chrono::seconds> daemon_silence(
      const std::string& interface, Seen& seen);

  std::map<std::string, Seen> seen_;
};

}  // namespace fenro::networkd
