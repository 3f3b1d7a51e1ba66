#include "ormel/base/address.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bit>
#include <netdb.h>

#include "ormel/base/log.h"

namespace ormel::system {

uint32_t calculate_net(const in_addr& addr, const in_addr& mask) {
  return addr.s_addr & mask.s_addr;
}

uint32_t calculate_broadcast(const in_addr& addr, const in_addr& mask) {
  return addr.s_addr | ~mask.s_addr;
}

bool is_intersect(const in_addr& a, const in_addr& a_mask, const in_addr& b,
                  const in_addr& b_mask) {
  return ntohl(calculate_net(a, a_mask)) <= ntohl(calculate_broadcast(b, b_mask)) &&
         ntohl(calculate_broadcast(a, a_mask)) >= ntohl(calculate_net(b, b_mask));
}

bool is_intersect(const in_addr& a, const in_addr& a_mask, const Network& b) {
  in_addr address{};
  in_addr mask{};
  return parse_address(b.address, address) && parse_address(b.mask, mask) &&
         is_intersect(a, a_mask, address, mask);
}

bool is_intersect(const Network& a, const Network& b) {
  in_addr address{};
  in_addr mask{};
  return parse_address(a.address, address) && parse_address(a.mask, mask) &&
         is_intersect(address, mask, b);
}

int netmask_to_prefix(uint32_t mask) {
  const uint32_t bits = ntohl(mask);
  const int prefix = std::countl_one(bits);
  if (std::popcount(bits) == prefix) return prefix;
  ORMEL_LOG(ERROR, "Invalid netmask: 0x%08x (non-consecutive bits)\n", bits);
  return -1;
}

std::string dotted_mask(int prefix) {
  const int length = std::clamp(prefix, 0, 32);
  const in_addr mask{htonl(length == 0 ? 0 : ~uint32_t{0} << (32 - length))};
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &mask, text, sizeof text);
}

bool parse_address(const std::string& text, in_addr& addr) {
  return inet_pton(AF_INET, text.c_str(), &addr) == 1;
}

void nslookup(const std::string& host, std::vector<std::string>& out) {
  const hostent* entry = gethostbyname(host.c_str());
  if (!entry || entry->h_addrtype != AF_INET) return;
  for (char** address = entry->h_addr_list; *address; ++address) {
    char text[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, *address, text, sizeof text)) out.emplace_back(text);
  }
}

std::string nslookup(const std::string& host) {
  std::vector<std::string> addresses;
  nslookup(host, addresses);
  return addresses.empty() ? std::string() : addresses.front();
}

}  // namespace ormel::system
