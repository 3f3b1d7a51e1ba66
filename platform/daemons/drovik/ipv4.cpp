#include "daemons/drovik/ipv4.h"

#include <arpa/inet.h>
#include <cstring>
#include <netinet/ip.h>

namespace fenro::drovik {

std::optional<Ipv4> parse_ipv4(const std::string& text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return {};
  return ntohl(address.s_addr);
}

std::string to_text(Ipv4 address) {
  const in_addr network{htonl(address)};
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &network, text, sizeof text);
}

std::optional<PacketEnds> packet_ends(std::string_view packet) {
  constexpr unsigned VERSION = 4;
  constexpr std::size_t WORD = 4;
  iphdr head{};
  if (packet.size() < sizeof head) return {};
  std::memcpy(&head, packet.data(), sizeof head);
  if (head.version != VERSION || head.ihl * WORD < sizeof head || head.ihl * WORD > packet.size())
    return {};
  if (ntohs(head.tot_len) != packet.size()) return {};
  return PacketEnds{ntohl(head.saddr), ntohl(head.daddr)};
}

}  // namespace fenro::drovik
