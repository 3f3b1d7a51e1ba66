// IPv4 addresses, masks and networks.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace ormel::system {

// First and last address of a network, in network order.
[[nodiscard]] uint32_t calculate_net(const in_addr& addr, const in_addr& mask);
[[nodiscard]] uint32_t calculate_broadcast(const in_addr& addr, const in_addr& mask);

// Whether two networks overlap.
[[nodiscard]] bool is_intersect(const in_addr& a, const in_addr& a_mask, const in_addr& b, const in_addr& b_mask);

// A network in text; either part may be no address.
struct Network {
  std::string address;
  std::string mask;  // dotted
};

// The same of networks in text: false where a part is no address.
[[nodiscard]] bool is_intersect(const in_addr& a, const in_addr& a_mask, const Network& b);
[[nodiscard]] bool is_intersect(const Network& a, const Network& b);

// Length of a mask in network order, in bits; negative if its one bits are not consecutive.
[[nodiscard]] int netmask_to_prefix(uint32_t mask);

// The mask of a prefix length as four decimal octets; lengths outside 0 to 32 count as the nearest.
[[nodiscard]] std::string dotted_mask(int prefix);

// A dotted quad. Whether the text is one, wholly.
[[nodiscard]] bool parse_address(const std::string& text, in_addr& addr);

// Appends each IPv4 address of `host`.
void nslookup(const std::string& host, std::vector<std::string>& out);
// The first IPv4 address of `host`, empty if it does not resolve.
[[nodiscard]] std::string nslookup(const std::string& host);

}  // namespace ormel::system
