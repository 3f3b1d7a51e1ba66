// Connections of the appliance's servers and client profiles: what begins and ends is noted in the
// list of live connections and as rows of the connection logs, which the log database keeps. A row
// tells one event.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "common/online_users.h"

namespace fenro {

// What a row tells; the login hook of the OpenVPN server writes the refusals.
enum class ConnectionEvent : int { Connected = 0, Refused = 1, Disconnected = 2 };

// From the appliance's point of view.
struct Traffic {
  std::int64_t received = 0;
  std::int64_t sent = 0;
};

// A client of a server has come: a line in the list, a row in the log. A line that this one follows
// on (the same OpenVPN client, or the same interface) is closed first.
[[nodiscard]] bool begin_session(const OnlineUsers& users, const OnlineUser& session);

// Those that are chosen have gone: their lines leave the list, and the log gets a row of each with
// its duration. `traffic` is that of one session.
[[nodiscard]] bool end_sessions(const OnlineUsers& users, const OnlineUsers::Chosen& chosen,
                                Traffic traffic = {});

// A login that was refused: a row in the log, with the reason in the place of the device, and an
// event.
[[nodiscard]] bool log_refusal(const OnlineUser& login, const std::string& reason);

// The event alone, of a login whose row is written elsewhere. The same refusal of the same account
// is an event once a minute, and accounts that do not exist count as one: strangers must not fill
// the event log.
void tell_refusal(const OnlineUser& login, const std::string& reason);

// A tunnel of a client profile has come up or gone down.
struct ClientTunnel {
  std::string name{};  // of the profile
  std::uint32_t type = 0;
  std::string local{};   // our address in the tunnel
  std::string server{};  // address of the other end outside of it
  std::time_t since = 0;
};
[[nodiscard]] bool log_client(const ClientTunnel& tunnel, ConnectionEvent event,
                              Traffic traffic = {});

}  // namespace fenro
