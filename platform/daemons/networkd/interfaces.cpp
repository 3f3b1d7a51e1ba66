#include "daemons/networkd/interfaces.h"

#include <algorithm>
#include <cstdlib>
#include <net/if_arp.h>
#include <unistd.h>

#include "base/handle.h"
#include "daemons/networkd/ipv4_network.h"
#include "daemons/networkd/local_networks.h"

namespace fenro::networkd {
namespace {

constexpr std::string_view VIRTUAL = "virtualif";
const std::string DEVICES = "/sys/class/net/";

struct Kind {
  std::string_view kind;
  std::string_view type;
};

constexpr Kind KINDS[] = {
    {"bond", BOND},   {"bridge", BRIDGE},   {"openvswitch", BRIDGE}, {"team", BOND},
    {"vlan", "vlan"}, {"veth", "ethernet"},  // all that a contained host has for a cable
};

template <typename Matches>
const Link* first_link(const std::vector<Link>& links, Matches matches) {
  const auto found = std::find_if(links.begin(), links.end(), matches);
  return found == links.end() ? nullptr : &*found;
}

bool is_wireless(const Link& link) {
  return access((DEVICES + link.name + "/wireless").c_str(), F_OK) == 0;
}

}  // namespace

std::string_view interface_type(const Link& link) {
  const auto* known = std::find_if(std::begin(KINDS), std::end(KINDS),
                                   [&](const Kind& each) { return each.kind == link.kind; });
  if (known != std::end(KINDS)) return known->type;
  if (!link.kind.empty() || link.hardware != ARPHRD_ETHER) return VIRTUAL;
  return is_wireless(link) ? "wireless" : "ethernet";
}

bool is_available(const Link& link) {
  return link.master == 0 && !is_own_tunnel(link.name) && interface_type(link) != VIRTUAL;
}

long speed_of(const Link& link) {
  const File file{std::fopen((DEVICES + link.name + "/speed").c_str(), "re")};
  char text[24] = "";
  // Without a link a driver refuses, or says -1.
  if (!file || !std::fgets(text, sizeof text, file.get())) return 0;
  return std::max(std::strtol(text, nullptr, 10), 0L);
}

const Link* find_link(const std::vector<Link>& links, int index) {
  return first_link(links, [index](const Link& link) { return link.index == index; });
}

const Link* find_link(const std::vector<Link>& links, const std::string& name) {
  return first_link(links, [&name](const Link& link) { return link.name == name; });
}

Json addresses_of(const Link& link, const std::vector<Address>& addresses) {
  Json list{json_array()};
  for (const Address& address : addresses) {
    if (address.index != link.index) continue;
    const std::uint32_t mask = ~Ipv4Network{0, address.prefix}.last();
    json_array_append_new(list.get(), json_pack("{s:s, s:s}", "ip", dotted(address.local).c_str(),
                                                "netmask", dotted(mask).c_str()));
  }
  return list;
}

}  // namespace fenro::networkd
