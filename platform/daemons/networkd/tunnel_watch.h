// Whether traffic passes through a tunnel: its far end is asked for an echo, and anything that comes in counts.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "daemons/networkd/gateway_choice.h"
#include "daemons/networkd/rtnetlink.h"

namespace fenro::networkd {

// The address to ask: the far end of a point-to-point link, else the first host of the network that is not ourselves.
[[nodiscard]] std::uint32_t far_end(const Address& address);

class TunnelWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // To be asked about once a second; each time the far end is asked too.
  [[nodiscard]] Health look(const std::string& interface, const std::vector<Link>& links,
                            const std::vector<Address>& addresses, Clock::time_point now);

 private:
  struct Seen {
    int index = 0;  // of the interface; another one of the same name starts anew
    std::uint64_t rx_bytes = 0;
    Clock::time_point heard{};
  };
  std::map<std::string, Seen> seen_;
};

}  // namespace fenro::networkd
