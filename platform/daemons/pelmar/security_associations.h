// The host's IPsec tunnels, read from its kernel.
#pragma once

#include <cstdint>
#include <set>
#include <string_view>
#include <utility>

namespace fenro::pelmar {

// State of the tunnel to one peer. Callers rely on these numbers.
enum class TunnelState : int {
  NONE = 0,
  HALF = 1,  // it carries one direction
  UP = 2,
};

// Source and destination of each security association, as addresses of IPv4 in network order.
using SecurityAssociations = std::set<std::pair<std::uint32_t, std::uint32_t>>;

// Adds the associations of one kernel answer, which may hold several messages. Skips larval ones,
// which have no keys yet. Returns false at the end of the list and on malformed data.
[[nodiscard]] bool take_associations(std::string_view answer, SecurityAssociations& out);

// Returns the kernel's associations; empty when the kernel does not answer.
[[nodiscard]] SecurityAssociations security_associations();

// `peer` is a dotted IPv4 address. Any other text counts as a peer without a tunnel.
[[nodiscard]] TunnelState tunnel_state(const SecurityAssociations& associations, const char* peer);

}  // namespace fenro::pelmar
