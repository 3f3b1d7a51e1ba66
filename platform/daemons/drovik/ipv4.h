// IPv4 addresses as numbers of the host, and what the tunnel has to know of a packet.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace fenro::drovik {

using Ipv4 = std::uint32_t;

[[nodiscard]] std::optional<Ipv4> parse_ipv4(const std::string& text);
[[nodiscard]] std::string to_text(Ipv4 address);

struct PacketEnds {
  Ipv4 source = 0;
  Ipv4 destination = 0;
};

// Of a packet that is IPv4 and exactly as long as it says; nothing for any other bytes.
[[nodiscard]] std::optional<PacketEnds> packet_ends(std::string_view packet);

}  // namespace fenro::drovik
