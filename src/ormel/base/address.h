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

// Returns whether two networks overlap.
[[nodiscard]] bool is_intersect(const in_addr& a, const in_addr& a_mask, const in_addr& b,
                                const in_addr& b_mask);

// A network in text; either part may be malformed.
struct Network {
  std::string address;
  std::string mask;  // dotted
};

// The same for networks in text; returns false for a malformed part.
[[nodiscard]] bool is_intersect(const in_addr& a, const in_addr& a_mask, const Network& b);
[[nodiscard]] bool is_intersect(const Network& a, const Network& b);

// Returns the prefix length of a mask in network order; negative if its one bits are not
// consecutive.
[[nodiscard]] int netmask_to_prefix(uint32_t mask);

// Returns the mask of a prefix length as four decimal octets; clamps lengths to 0 to 32.
[[nodiscard]] std::string dotted_mask(int prefix);

// Parses a dotted quad. Returns false for any other text.
[[nodiscard]] bool parse_address(const std::string& text, in_addr& addr);

// Appends each IPv4 address of `host`.
void nslookup(const std::string& host, std::vector<std::string>& out);
// Returns the first IPv4 address of `host`, or an empty text if it does not resolve.
[[nodiscard]] std::string nslookup(const std::string& host);

}  // namespace ormel::system
