// What the kernel says about interfaces and addresses, over a routing netlink socket.
// The parsers take bytes that need not be well formed: they never read past the end of a message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace fenro::networkd {

struct Link {
  int index = 0;
  std::string name;
  unsigned flags = 0;    // IFF_ values
  bool running = false;  // up, and with a carrier as far as the device knows
  std::uint64_t rx_bytes = 0;
  std::uint64_t tx_bytes = 0;
  unsigned hardware = 0;  // ARPHRD_ value
  int master = 0;         // index of the bridge or bond that it is part of
  std::string kind{};     // of a device made in software, as `ip link` has it; empty for hardware
  std::string mac{};      // hexadecimal, empty for a device that has none
};

struct Address {  // IPv4, in host order
  int index = 0;  // of the interface
  std::uint32_t local = 0;
  std::uint32_t network = 0;  // an address of the network; the peer's on a point-to-point link
  int prefix = 0;
};

struct Route {  // IPv4, in host order
  unsigned table = 0;
  int prefix = 0;             // 0 for a default route
  int index = 0;              // of the interface
  std::uint32_t gateway = 0;  // 0 for none
  std::uint32_t metric = 0;
  unsigned protocol = 0;  // RTPROT_ value: who made it
};

struct AddressMark {  // of either family; another one means that the host's networks are others
  int index = 0;      // of the interface
  std::string address;
  bool operator==(const AddressMark&) const = default;
};

using Bytes = std::span<const std::byte>;

// The attribute of `type` among `attributes`, empty if it is not there.
[[nodiscard]] Bytes find_attribute(Bytes attributes, unsigned type);

// The payload of a RTM_NEWLINK, RTM_NEWADDR or RTM_NEWROUTE message. False if it lacks what makes
// it one, or is not IPv4.
[[nodiscard]] bool parse_link(Bytes payload, Link& out);
[[nodiscard]] bool parse_address(Bytes payload, Address& out);
[[nodiscard]] bool parse_route(Bytes payload, Route& out);

// Whole lists as they are now. False if the kernel could not be asked; `out` is then not to be
// used.
[[nodiscard]] bool list_links(std::vector<Link>& out);
[[nodiscard]] bool list_addresses(std::vector<Address>& out);
[[nodiscard]] bool list_routes(std::vector<Route>& out);
[[nodiscard]] bool list_address_marks(std::vector<AddressMark>& out);

}  // namespace fenro::networkd
