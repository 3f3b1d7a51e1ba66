// The live connections of the appliance's servers over the web: who is connected, and how to end a
// connection.
//
// The servers' scripts, hooks and daemons keep them in one text file, a line a connection
// (base/online_line.h). A line that is cut off or too long, or that has other text in the place of
// a number, is ignored.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ormel/base/json.h"

namespace ormel {

// The byte counters of one connection, and its rates in bytes per second.
struct byteStat {
  std::string key;
  uint64_t tx_bytes = 0;
  uint64_t rx_bytes = 0;
  int tx_rate = 0;
  int rx_rate = 0;
};

// The counters of all connections by their key, empty when the daemon that counts cannot be asked.
[[nodiscard]] std::map<std::string, byteStat> get_all_server_stat();

}  // namespace ormel

namespace ormel::cgi::connection {

struct vpn_peer {
  std::time_t vpn_time = 0;   // of the login
  uint32_t vpn_type = 0;      // ormel::TYPE of the server
  uint32_t vpn_pid_port = 0;  // NUMBER
  std::string
      vpn_eth{};  // interface; for OpenVPN a placeholder, for Drovik the client's identifier
  std::string vpn_user{};      // decoded
  std::string vpn_local{};     // our address in the tunnel
  std::string vpn_remote{};    // the client's address in the tunnel
  std::string vpn_source{};    // the client's address outside of it
  std::string vpn_dev_info{};  // any text
};

// "ADDRESS:PORT" of an OpenVPN client.
[[nodiscard]] std::string source_and_port(const vpn_peer& peer);
// What joins a connection to its counters and names it in a request.
[[nodiscard]] std::string key_of(const vpn_peer& peer);
// Returns the connection of a line, or false for a malformed one.
[[nodiscard]] bool parse_peer(std::string_view line, vpn_peer& peer);
// All connections in the order of the file. False when there is no file.
bool read_peers(std::vector<vpn_peer>& peers);

// Appends a row for each connection that is chosen to the answer, which `finish` may complete, and
// returns their number.
uint64_t append_peers(
    JsonValue& rows, std::time_t now,
    const std::function<void(const vpn_peer&, JsonValue&)>& finish = [](auto&, auto&) {},
    const std::function<bool(const vpn_peer&)>& chosen = [](auto&) { return true; });

// A device of the WireGuard server with what its interface reports.
struct Device {
  std::string name, key, endpoint, address;
  long handshake = 0;  // seconds since the epoch, 0 for never
  uint64_t received = 0, sent = 0;
};
// The devices on the running interface.
[[nodiscard]] std::vector<Device> live_devices();
constexpr long RECENT = 180;  // seconds since a device's handshake for which it counts as connected

// How a request names a connection: "TYPE|KEY".
[[nodiscard]] std::string name_of(const vpn_peer& peer);
// Ends a connection and waits until its server has confirmed it, ten seconds at most. Returns
// whether it has gone.
[[nodiscard]] bool end_peer(const vpn_peer& peer);

// How many devices of the WireGuard server have had a handshake in the last three minutes; nothing
// when its interface cannot be asked.
[[nodiscard]] std::optional<int64_t> recent_devices();
// Ends a connection in the way of the server of `type`, which a request names. What cannot be ended
// stays.
int kick_peer(const vpn_peer& peer, long type);

}  // namespace ormel::cgi::connection
