// Records the start and end of connections for the hooks of servers and client tunnels, in the
// list of live connections and in the connection log.
//
//   fenro-connection up TYPE INTERFACE SOURCE NUMBER LOCAL REMOTE
//   fenro-connection down TYPE [FIELD VALUE]
//   fenro-connection client-up TYPE LOCAL SERVER
//   fenro-connection client-down TYPE LOCAL SERVER SINCE
//
// FIELD is interface, number or remote; without it all connections of TYPE end.
// TYPE is the bit of the server or the client, NUMBER a pid or the source port of an OpenVPN
// client, SERVER the other end's address outside the tunnel, SINCE seconds since the epoch.
// Values chosen by users come from the environment: CONNECTION_NAME (the user or the profile),
// CONNECTION_DEVICE, and at an end CONNECTION_RECEIVED and CONNECTION_SENT, in bytes as seen by
// the appliance. The exit status is 0 when everything was recorded.
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string_view>

#include "common/connection_log.h"

namespace {

using namespace fenro;
using Words = std::span<char* const>;

constexpr int USAGE = 2;

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

template <typename Number>
bool parse(std::string_view text, Number& out) {
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), out);
  return failure == std::errc{} && end == text.data() + text.size();
}

// Missing or malformed counters are 0.
Traffic traffic() {
  Traffic traffic;
  if (!parse(environment("CONNECTION_RECEIVED"), traffic.received)) traffic.received = 0;
  if (!parse(environment("CONNECTION_SENT"), traffic.sent)) traffic.sent = 0;
  return traffic;
}

int result(bool done) {
  if (!done) std::fputs("fenro-connection: not everything could be noted\n", stderr);
  return done ? EXIT_SUCCESS : EXIT_FAILURE;
}

int up(std::uint32_t type, Words words) {
  OnlineUser session{words[0],
                     words[1],
                     0,
                     words[3],
                     words[4],
                     type,
                     std::time(nullptr),
                     environment("CONNECTION_NAME"),
                     environment("CONNECTION_DEVICE")};
  if (!parse(words[2], session.number)) return USAGE;
  return result(begin_session(OnlineUsers{}, session));
}

std::string interface_of(const OnlineUser& session) {
  return session.interface;
}
std::string number_of(const OnlineUser& session) {
  return std::to_string(session.number);
}
std::string remote_of(const OnlineUser& session) {
  return session.remote;
}

struct Field {
  std::string_view name;
  std::string (*of)(const OnlineUser& session);
};
constexpr Field FIELDS[] = {
    {"interface", interface_of}, {"number", number_of}, {"remote", remote_of}};

int down(std::uint32_t type, Words words) {
  for (const Field& field : FIELDS) {
    if (words.empty() || field.name != words[0]) continue;
    const std::string_view value = words[1];
    return result(end_sessions(
        OnlineUsers{},
        [&](const OnlineUser& one) { return one.type == type && field.of(one) == value; },
        traffic()));
  }
  return USAGE;
}

int down_all(std::uint32_t type, Words) {
  return result(
      end_sessions(OnlineUsers{}, [&](const OnlineUser& one) { return one.type == type; }));
}

ClientTunnel client(std::uint32_t type, Words words) {
  return {environment("CONNECTION_NAME"), type, words[0], words[1]};
}

int client_up(std::uint32_t type, Words words) {
  return result(log_client(client(type, words), ConnectionEvent::Connected));
}

int client_down(std::uint32_t type, Words words) {
  ClientTunnel tunnel = client(type, words);
  if (!parse(words[2], tunnel.since)) return USAGE;
  return result(log_client(tunnel, ConnectionEvent::Disconnected, traffic()));
}

struct Command {
  std::string_view name;
  std::size_t words;  // after the type
  int (*run)(std::uint32_t type, Words words);
};
constexpr Command COMMANDS[] = {
    {"up", 5, up},
    {"down", 2, down},
    {"down", 0, down_all},
    {"client-up", 2, client_up},
    {"client-down", 3, client_down},
};

}  // namespace

int main(int argc, char** argv) {
  const Words words{argv, static_cast<std::size_t>(argc)};
  std::uint32_t type = 0;
  for (const Command& command : COMMANDS) {
    if (words.size() != command.words + 3 || command.name != words[1]) continue;
    const int status = parse(words[2], type) ? command.run(type, words.subspan(3)) : USAGE;
    if (status != USAGE) return status;
  }
  std::fputs(
      "usage: up TYPE INTERFACE SOURCE NUMBER LOCAL REMOTE, down TYPE [interface|number|remote "
      "VALUE],\n"
      "       client-up TYPE LOCAL SERVER, client-down TYPE LOCAL SERVER SINCE\n",
      stderr);
  return USAGE;
}
