#include "daemons/networkd/local_networks.h"

#include <algorithm>
#include <charconv>

namespace fenro::networkd {
namespace {

struct TunnelUnits {
  std::string_view prefix;
  int first;
  int last;
};
constexpr TunnelUnits OWN_TUNNELS[] = {
    {"ppp", 0, 999},        // sessions of the PPTP and L2TP servers: a pair of addresses, no network of their own
    {"ppp", 1001, 1032},    // PPTP clients
    {"ppp", 1251, 1282},    // L2TP clients
    {"tun", 1000, 1000},    // the OpenVPN server
    {"tun", 2001, 2032},    // OpenVPN clients
    {"dtunc", 2501, 2532},  // Drovik clients
    {"dtuns", 0, 0},        // the Drovik server
    {"wgc", 3001, 3032},    // WireGuard clients
    {"wg", 0, 0},           // the WireGuard server
};

bool has_unit(std::string_view interface, const TunnelUnits& units) {
  if (!interface.starts_with(units.prefix)) return false;
  const std::string_view digits = interface.substr(units.prefix.size());
  int unit = -1;
  const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), unit);
  return failure == std::errc{} && end == digits.data() + digits.size() && unit >= units.first && unit <= units.last;
}

std::string name_of(const std::vector<Link>& links, int index) {
  const auto link = std::find_if(links.begin(), links.end(), [&](const Link& each) { return each.index == index; });
  return link == links.end() ? "#" + std::to_string(index) : link->name;
}

}  // namespace

bool is_own_tunnel(std::string_view interface) {
  return std::any_of(std::begin(OWN_TUNNELS), std::end(OWN_TUNNELS),
                     [&](const TunnelUnits& units) { return has_unit(interface, units); });
}

std::vector<LocalNetwork> local_networks(const std::vector<Link>& links, const std::vector<Address>& addresses) {
  std::vector<LocalNetwork> networks;
  for (const Address& address : addresses) {
    const std::string name = name_of(links, address.index);
    if (is_own_tunnel(name)) continue;
    networks.push_back({name, Ipv4Network{address.network, address.prefix}});
    // On a point-to-point link our own end lies outside the peer's network.
    if (address.local != address.network) networks.push_back({name, Ipv4Network{address.local, 32}});
  }
  return networks;
}

const LocalNetwork* find_overlap(const std::vector<LocalNetwork>& networks, const Ipv4Network& network) {
  const auto hit = std::find_if(networks.begin(), networks.end(),
                                [&](const LocalNetwork& each) { return each.network.overlaps(network); });
  return hit == networks.end() ? nullptr : &*hit;
}

}  // namespace fenro::networkd
