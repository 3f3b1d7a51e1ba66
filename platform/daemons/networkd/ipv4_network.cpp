#include "daemons/networkd/ipv4_network.h"

#include <arpa/inet.h>
#include <bit>

namespace fenro::networkd {

Ipv4Network::Ipv4Network(std::uint32_t address, int length) noexcept
    : mask_{length <= 0 ? 0 : ~std::uint32_t{0} << (32 - (length < 32 ? length : 32))} {
  first_ = address & mask_;
}

std::string Ipv4Network::text() const {
  return dotted(first_) + "/" + std::to_string(std::popcount(mask_));
}

std::string dotted(std::uint32_t address) {
  const in_addr number{htonl(address)};
  char quad[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &number, quad, sizeof quad);
  return quad;
}

bool parse_ipv4(const char* text, std::uint32_t& out) {
  in_addr address{};
  if (text == nullptr || inet_pton(AF_INET, text, &address) != 1) return false;
  out = ntohl(address.s_addr);
  return true;
}

bool parse_netmask(const char* text, int& length) {
  std::uint32_t mask = 0;
  if (!parse_ipv4(text, mask)) return false;
  length = std::countl_one(mask);
  return length == std::popcount(mask);
}

}  // namespace fenro::networkd
