// Byte counters of the connections to the appliance's servers, from where each kind of server has them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fenro::rated {

// From the appliance's point of view: what it has received from the client and sent to it.
struct Counters {
  std::string key{};
  std::uint64_t rx_bytes = 0;
  std::uint64_t tx_bytes = 0;
  int generation = 0;  // differs when what counts was made anew
};

// Of all network interfaces by their names: a PPP session has one of its own.
[[nodiscard]] std::vector<Counters> interface_counters();
// Of the clients of the appliance's own tunnel, by the identifiers that its daemon gives; none without the daemon.
[[nodiscard]] std::vector<Counters> drovik_clients();

}  // namespace fenro::rated
