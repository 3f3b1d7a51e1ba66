#include "daemons/networkd/local_networks.h"

#include <algorithm>

#include "base/lines.h"
#include "base/tunnel.h"

namespace fenro::networkd {
namespace {

bool has_number(std::string_view interface, std::string_view prefix, int first, int last) {
  if (!interface.starts_with(prefix)) return false;
  int number = -1;
  return parse_number(interface.substr(prefix.size()), number) && number >= first && number <= last;
}

std::string name_of(const std::vector<Link>& links, int index) {
  const auto link = std::find_if(links.begin(), links.end(),
                                 [&](const Link& each) { return each.index == index; });
  return link == links.end() ? "#" + std::to_string(index) : link->name;
}

}  // namespace

bool is_own_tunnel(std::string_view interface) {
  return std::ranges::any_of(ormel::TUNNELS, [&](const ormel::TunnelFacts& facts) {
    return has_number(interface, facts.server_interface, facts.first_number, facts.last_number) ||
           has_number(interface, facts.interface, facts.base + 1,
                      facts.base + ormel::MAX_TUNNEL_INDEX);
  });
}

std::vector<LocalNetwork> local_networks(const std::vector<Link>& links,
                                         const std::vector<Address>& addresses) {
  std::vector<LocalNetwork> networks;
  for (const Address& address : addresses) {
    const std::string name = name_of(links, address.index);
    if (is_own_tunnel(name)) continue;
    networks.push_back({name, Ipv4Network{address.network, address.prefix}});
    // On a point-to-point link our own end is outside the peer's network.
    if (address.local != address.network)
      networks.push_back({name, Ipv4Network{address.local, 32}});
  }
  return networks;
}

const LocalNetwork* find_overlap(const std::vector<LocalNetwork>& networks,
                                 const Ipv4Network& network) {
  const auto hit = std::find_if(networks.begin(), networks.end(), [&](const LocalNetwork& each) {
    return each.network.overlaps(network);
  });
  return hit == networks.end() ? nullptr : &*hit;
}

}  // namespace fenro::networkd
