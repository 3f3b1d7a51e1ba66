// What a line of an OpenVPN client's management interface says about why its tunnel is not up.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace fenro::openvpn {

// A reason by its code in base/reason.h, and the daemon's or the server's own words.
struct Sign {
  std::string_view code;
  std::string detail;
};

// Reads a line as ">LOG:", ">FATAL:" or ">PASSWORD:Verification Failed", or one of the log so far.
// Nothing for a line that explains no failure.
[[nodiscard]] std::optional<Sign> sign_of(std::string_view line);

// The tunnel is up: a state that was sent unasked, or in answer to "state".
[[nodiscard]] bool says_connected(std::string_view line);

// The daemon gives an attempt up and begins another.
[[nodiscard]] bool says_reconnecting(std::string_view line);

// How many servers the profile names: the answer to "remote-entry-count". Nothing for any other
// line.
[[nodiscard]] std::optional<int> remote_count(std::string_view line);

// The daemon warns that the profile's own certificate has expired. A server may not look at it.
[[nodiscard]] bool warns_of_own_certificate(std::string_view line);

// The server's first packet has come: a state like that of says_connected.
[[nodiscard]] bool says_server_answers(std::string_view line);

// The handshake has ended without a tunnel, for whatever reason.
[[nodiscard]] bool says_handshake_failed(std::string_view line);

}  // namespace fenro::openvpn
