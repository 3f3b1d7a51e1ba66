// Byte counters of the connections to the appliance's servers, from each server type's own
// source.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fenro::rated {

// Bytes received from the client and sent to it, as seen by the appliance.
struct Counters {
  std::string key{};
  std::uint64_t rx_bytes = 0;
  std::uint64_t tx_bytes = 0;
  int generation = 0;  // changes when the counter was created again
};

// How far a counter has come; 0 for one that began again.
[[nodiscard]] constexpr std::uint64_t grown(std::uint64_t before, std::uint64_t now) {
  return now > before ? now - before : 0;
}

// Counters of all network interfaces by name. Each PPP session has its own interface.
[[nodiscard]] std::vector<Counters> interface_counters();
// Counters of the Drovik clients, by the identifiers that the daemon assigns; empty without the
// daemon.
[[nodiscard]] std::vector<Counters> drovik_clients();

}  // namespace fenro::rated
