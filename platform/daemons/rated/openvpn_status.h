// The OpenVPN server's client list, read from its management port.
#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>
#include <vector>

#include "daemons/rated/connection_counters.h"
#include "openvpn/management.h"

namespace fenro::rated {

// Returns the clients by "ADDRESS:PORT"; empty when the port does not answer. The port serves one
// caller at a time, so the connection is closed at once, after `patience` at the latest. Lines
// received until then count.
[[nodiscard]] std::vector<Counters> openvpn_clients(
    std::uint16_t port = openvpn::SERVER_PORT,
    std::chrono::milliseconds patience = std::chrono::seconds{1});

// Parses the client lines of an answer to "status 3". Skips all other lines.
[[nodiscard]] std::vector<Counters> parse_status(std::string_view text);

}  // namespace fenro::rated
