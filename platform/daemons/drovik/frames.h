// What the two ends of a tunnel say inside of DTLS; one record carries one message.
//
// A message whose first byte begins with the bits 0100 is an IPv4 packet unchanged. Any other is a
// control message: its kind in the first byte, then fields of a number (1 byte), a length (2 bytes,
// the higher first) and as many bytes. A field with an unknown number is skipped, so that a later
// version can add some; one that comes twice makes the message void.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "daemons/drovik/ipv4.h"

namespace fenro::drovik {

constexpr std::uint8_t PROTOCOL_VERSION = 1;
constexpr std::uint16_t TUNNEL_MTU =
    1400;  // with all heads below 1492, which most access lines carry
constexpr std::uint16_t LOWEST_MTU = 576;    // that a server may ask for
constexpr std::size_t MESSAGE_MAX = 2048;    // a longer one is no message
constexpr std::size_t LOGIN_TEXT_MAX = 256;  // of a user name or a password
constexpr std::size_t NAME_SERVERS_MAX = 2;

enum class Kind : std::uint8_t {
  None = 0,
  Login = 1,
  Welcome = 2,
  Refuse = 3,
  Ping = 4,
  Pong = 5,
  Bye = 6
};

// Why a login is refused or a tunnel ends.
enum class Reason : std::uint8_t {
  None = 0,
  Denied = 1,    // user, password or right; which one is not said
  Full = 2,      // no room or no address left
  Occupied = 3,  // another user is online under this identifier
  Version = 4,   // of the protocol
  Kicked = 5,    // by an administrator
  Stopping = 6,  // the server goes down
  Replaced = 7,  // the same client has logged in again
  Worn = 8,      // the keys have protected enough
  Left = 9,      // the client goes by itself
  Silent = 10,   // nothing was heard for too long; never sent
};
[[nodiscard]] const char* reason_text(Reason reason);

struct Login {
  std::uint8_t version = PROTOCOL_VERSION;
  std::string user{};
  std::string password{};
  std::string identifier{};  // as "02:00:5e:10:00:01"
};

struct Welcome {
  Ipv4 address = 0;
  Ipv4 gateway = 0;
  std::uint8_t prefix = 0;
  std::uint16_t mtu = TUNNEL_MTU;
  std::vector<Ipv4> name_servers{};
};

[[nodiscard]] inline bool is_packet(std::string_view message) {
  return !message.empty() && static_cast<unsigned char>(message[0]) >> 4 == 4;
}

// Kind::None for a packet and for what is no message.
[[nodiscard]] Kind kind_of(std::string_view message);

[[nodiscard]] std::string encode(const Login& login);
[[nodiscard]] std::string encode(const Welcome& welcome);
[[nodiscard]] std::string encode(Kind kind, Reason reason = Reason::None);

// False for a message of another kind, and for one that lacks a field or has one out of its bounds.
// Only the version of a login is left to the layer that can answer that it is not spoken here.
[[nodiscard]] bool decode(std::string_view message, Login& login);
[[nodiscard]] bool decode(std::string_view message, Welcome& welcome);
[[nodiscard]] Reason reason_of(std::string_view message);

[[nodiscard]] bool is_identifier(std::string_view text);

}  // namespace fenro::drovik
