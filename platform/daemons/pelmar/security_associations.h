// The IPsec tunnels of the host, as its kernel knows them.
#pragma once

#include <cstdint>
#include <set>
#include <string_view>
#include <utility>

namespace fenro::pelmar {

// How a tunnel to one peer stands; callers know these numbers.
enum class TunnelState : int {
  NONE = 0,
  HALF = 1,  // it carries one direction
  UP = 2,
};

// Source and destination of each security association, as addresses of IPv4 in network order.
using SecurityAssociations = std::set<std::pair<std::uint32_t, std::uint32_t>>;

// Takes those of one answer of the kernel, which may be several messages long. One without keys, as it stands while the
// ends still negotiate, does not count. False at the end of the list, and for anything that is damaged.
[[nodiscard]] bool take_associations(std::string_view answer, SecurityAssociations& out);

// Those of the kernel; none where it does not tell.
[[nodiscard]] SecurityAssociations security_associations();

// `peer` is a dotted address; any other text is a peer without a tunnel.
[[nodiscard]] TunnelState tunnel_state(const SecurityAssociations& associations, const char* peer);

}  // namespace fenro::pelmar
