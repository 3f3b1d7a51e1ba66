// Which networks this host is part of already, as far as a new tunnel must keep clear of them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "daemons/networkd/ipv4_network.h"
#include "daemons/networkd/rtnetlink.h"

namespace fenro::networkd {

struct LocalNetwork {
  std::string interface;
  Ipv4Network network;
};

// Interfaces of this system's own tunnels. They are left out: a server keeps its pool and a client
// its address when it is started again, while the interface of the time before is still there.
// Profiles that clash with each other are found where the profiles are kept, running or not.
[[nodiscard]] bool is_own_tunnel(std::string_view interface);

[[nodiscard]] std::vector<LocalNetwork> local_networks(const std::vector<Link>& links,
                                                       const std::vector<Address>& addresses);

// The first of `networks` that overlaps `network`, or null.
[[nodiscard]] const LocalNetwork* find_overlap(const std::vector<LocalNetwork>& networks,
                                               const Ipv4Network& network);

}  // namespace fenro::networkd
