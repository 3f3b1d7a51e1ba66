// Identifies a client of the web entry.
#pragma once

#include <arpa/inet.h>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace fenro {

// Returns an IPv4 address as text, or the first 64 bits of an IPv6 address, whose owner chooses the
// rest. Other text is returned unchanged.
[[nodiscard]] inline std::string client_network(std::string_view address) {
  constexpr std::size_t NETWORK_BYTES = 8;
  std::string text{address};
  in6_addr bytes{};
  if (inet_pton(AF_INET6, text.c_str(), &bytes) != 1) return text;
  if (!IN6_IS_ADDR_V4MAPPED(&bytes))
    return {reinterpret_cast<const char*>(bytes.s6_addr), NETWORK_BYTES};
  std::array<char, INET_ADDRSTRLEN> plain{};
  inet_ntop(AF_INET, bytes.s6_addr + sizeof bytes - sizeof(in_addr), plain.data(), plain.size());
  return plain.data();
}

}  // namespace fenro
