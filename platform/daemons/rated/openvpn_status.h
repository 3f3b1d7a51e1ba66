// What the OpenVPN server says of its clients on its management port.
#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>
#include <vector>

#include "daemons/rated/connection_counters.h"
#include "openvpn/management.h"

namespace fenro::rated {

// The clients by "ADDRESS:PORT"; none when nobody answers. The port serves one caller at a time, so it is given back at
// once, and in `patience` at the latest; the lines that have come by then count.
[[nodiscard]] std::vector<Counters> openvpn_clients(std::uint16_t port = openvpn::SERVER_PORT,
                                                    std::chrono::milliseconds patience = std::chrono::seconds{1});

// The lines of the clients in an answer to "status 3". All that is no such line is passed over.
[[nodiscard]] std::vector<Counters> parse_status(std::string_view text);

}  // namespace fenro::rated
