#include "daemons/networkd/tunnel_watch.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <sys/socket.h>

#include "common/handle.h"
#include "daemons/networkd/interfaces.h"
#include "daemons/networkd/ipv4_network.h"

namespace fenro::networkd {
namespace {

constexpr std::chrono::seconds PATIENCE{5};  // several lost echoes in a row
constexpr int NETWORK_OF_A_HOST = 24;        // what an address that comes with no network is taken to be part of

// The answer needs no reading: it counts as received on the interface.
void ask(const std::string& interface, std::uint32_t address) {
  const Fd socket{::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_ICMP)};
  if (!socket) return;
  if (setsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, interface.data(),
                 static_cast<socklen_t>(interface.size())) != 0)
    return;
  icmphdr echo{};
  echo.type = ICMP_ECHO;
  echo.checksum = static_cast<std::uint16_t>(~static_cast<unsigned>(htons(ICMP_ECHO << 8)));  // all else is 0
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(address);
  sendto(socket.get(), &echo, sizeof echo, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

}  // namespace

std::uint32_t far_end(const Address& address) {
  if (address.network != address.local) return address.network;
  const int prefix = address.prefix > 30 ? NETWORK_OF_A_HOST : address.prefix;
  const std::uint32_t first = Ipv4Network{address.local, prefix}.first() + 1;
  return first == address.local ? first + 1 : first;
}

Health TunnelWatch::look(const std::string& interface, const std::vector<Link>& links,
                         const std::vector<Address>& addresses, Clock::time_point now) {
  const Link* const link = find_link(links, interface);
  const auto address = std::find_if(addresses.begin(), addresses.end(),
                                    [link](const Address& one) { return link && one.index == link->index; });
  if (address == addresses.end() || !link->running) {
    seen_.erase(interface);
    return Health::ABSENT;
  }
  Seen& seen = seen_[interface];
  if (seen.index != link->index || seen.rx_bytes != link->rx_bytes) seen = {link->index, link->rx_bytes, now};
  ask(interface, far_end(*address));
  return now - seen.heard < PATIENCE ? Health::WELL : Health::SILENT;
}

}  // namespace fenro::networkd
