// Everyone who is connected, devices of the WireGuard server included; ending connections and
// keeping their users out.
//
// A connection is named "TYPE|KEY" as for /ormel/connection/kick, a device by its public key. A
// device counts as connected for three minutes after its latest handshake. Ending a connection
// returns once it has left the list of live connections and the server's own daemon has confirmed
// it. The platform's tool fenro-hold keeps the list of those who are kept out; the servers ask it
// at each login.
#include <algorithm>
#include <charconv>
#include <chrono>
#include <ctime>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

#include <fenro/mibservice.h>

#include "ormel/base/file.h"
#include "ormel/base/http.h"
#include "ormel/base/lines.h"
#include "ormel/base/text.h"
#include "ormel/drivers/wireguard/peers.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/bus.h"
#include "ormel/host/process.h"
#include "ormel/web/connection.h"
#include "ormel/web/hold.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::connection {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr const char* MANAGE_TOOL = "/usr/lib/fenro/fenro-openvpn-manage";
constexpr const char* WIREGUARD_SCRIPT = "/etc/init.d/vpn_wireguard.sh";
constexpr const char* DAEMON_SECONDS = "2";  // that OpenVPN's daemon may take for an answer
constexpr int DROVIK_SECONDS = 1;
constexpr auto GONE_TIME = std::chrono::seconds(10);
constexpr auto PAUSE = milliseconds(200);
constexpr int MOST_MINUTES = 10080;
constexpr char TYPE_MARK = '|';

std::vector<std::string> split_tabs(const std::string& line) {
  std::vector<std::string> fields;
  for (size_t at = 0; at <= line.size();) {
    const size_t end = std::min(line.find('\t', at), line.size());
    fields.push_back(line.substr(at, end - at));
    at = end + 1;
  }
  return fields;
}

template <typename Number>
Number number_of(const std::string& text) {
  Number number{};
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

std::string named(int type, const std::string& key) {
  return std::to_string(type) + TYPE_MARK + key;
}

// The script runs where the rights to ask it are. False when the interface cannot be asked.
bool read_devices(std::vector<Device>& devices) {
  std::string text;
  if (system::do_exec_safe({WIREGUARD_SCRIPT, "peers"}, text) != 0) return false;
  const wireguard::PeerFile peers(wireguard::FOLDER);
  for (const std::string& line : split_lines(text)) {
    std::vector<std::string> fields = split_tabs(line);
    fields.resize(6);
    Device device{{},
                  fields[0],
                  fields[1] == "(none)" ? "" : fields[1],
                  fields[2],
                  number_of<long>(fields[3]),
                  number_of<uint64_t>(fields[4]),
                  number_of<uint64_t>(fields[5])};
    for (int index = 1; index <= peers.max_index(); ++index) {
      const wireguard::Peer peer = peers.peer(index);
      if (peer.pub_key == device.key)
        std::ignore = system::decode_urlEncoded(peer.name, device.name);
    }
    devices.push_back(std::move(device));
  }
  return true;
}

bool is_recent(const Device& device, std::time_t now) {
  return device.handshake != 0 && now - device.handshake < RECENT;
}

}  // namespace

std::vector<Device> live_devices() {
  std::vector<Device> devices;
  std::ignore = read_devices(devices);  // none then
  return devices;
}

std::string name_of(const vpn_peer& peer) {
  return named(static_cast<int>(peer.vpn_type), key_of(peer));
}

namespace {

Json held_now() {
  return hold::rows("list");
}

void append_device(JsonValue& data, const Device& device, std::time_t now, int64_t until) {
  auto item = std::make_unique<JsonValue>();
  JsonValue& row = *item;
  row["type"] = static_cast<int32_t>(WIREGUARD_SERVER_TYPE);
  row["name"] = system::valid_utf8(device.name);
  row["target"] = system::valid_utf8(device.key);
  row["uptime"] = static_cast<int64_t>(std::max<long>(now - device.handshake, 0));
  row["source_ip"] = system::valid_utf8(device.endpoint);
  row["allocate_ip"] = system::valid_utf8(device.address);
  row["device_info"] = "";
  row["rx_total"] = device.received;
  row["tx_total"] = device.sent;
  row["held"] = until;
  data.append(std::move(item));
}

int list_all(const Request&, JsonValue& reply) {
  JsonValue& data = reply["data"].make_array();
  const std::time_t now = std::time(nullptr);
  const Json holds = held_now();
  uint64_t total = append_peers(data, now, [&](const vpn_peer& peer, JsonValue& row) {
    row["held"] = hold::until(holds.get(), "user", system::valid_utf8(peer.vpn_user));
  });
  for (const Device& device : live_devices()) {
    if (!is_recent(device, now)) continue;
    append_device(data, device, now, hold::until(holds.get(), "peer", device.key));
    ++total;
  }
  reply["total"] = total;
  return NO_ERROR;
}

// One connection to be ended.
struct Target {
  std::string conn;  // as the request names it
  vpn_peer peer{};   // of type WIREGUARD_SERVER_TYPE for a device
  Device device{};
  bool gone = false;
  milliseconds took{};

  [[nodiscard]] bool is_device() const { return peer.vpn_type == WIREGUARD_SERVER_TYPE; }
};

bool is_listed(const vpn_peer& wanted) {
  std::vector<vpn_peer> peers;
  read_peers(peers);
  return std::any_of(peers.begin(), peers.end(), [&](const vpn_peer& peer) {
    return peer.vpn_type == wanted.vpn_type && key_of(peer) == key_of(wanted) &&
           peer.vpn_time == wanted.vpn_time;
  });
}

// A client that has come back has a later beginning than the one that was listed.
bool openvpn_has(const vpn_peer& peer) {
  enum { Title, Name, Real, Virtual, Virtual6, Received, Sent, Since, SinceNumber, Fields };
  constexpr int TIMED_OUT = 124;
  std::string text;
  const int rc =
      system::do_exec_safe({"/usr/bin/timeout", DAEMON_SECONDS, MANAGE_TOOL, "status 3"}, text);
  if (rc != 0)
    return rc == TIMED_OUT;  // a missing daemon has no sessions; a stopped one does not answer
  const std::vector<std::string> lines = split_lines(text);
  return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
    std::vector<std::string> fields = split_tabs(line);
    fields.resize(Fields);
    return fields[Title] == "CLIENT_LIST" &&
           (fields[Real] == source_and_port(peer) || fields[Virtual] == peer.vpn_remote) &&
           number_of<std::time_t>(fields[SinceNumber]) <= peer.vpn_time;
  });
}

bool drovik_has(const vpn_peer& peer) {
  const system::PlainReply reply =
      system::plain_call("MorviServer", "bytes_info", nullptr, DROVIK_SECONDS);
  if (reply.status != MIB_SUCCESS)
    return reply.status != MIB_NOT_READY;  // a missing daemon has no sessions
  size_t at = 0;
  const json_t* client = nullptr;
  json_array_foreach(reply.data(), at, client) {
    const char* const mac = json_string_value(json_object_get(client, "mac"));
    if (mac && peer.vpn_eth == mac) return true;
  }
  return false;
}

bool ppp_has(const vpn_peer& peer) {
  const std::string path = "/proc/" + std::to_string(peer.vpn_pid_port) + "/comm";
  const File in{std::fopen(path.c_str(), "re")};
  char name[32] = "";
  return in && std::fgets(name, sizeof name, in.get()) &&
         std::string_view(name).starts_with("pppd");
}

bool wireguard_has(const std::string& key) {
  const std::vector<Device> devices = live_devices();
  return std::any_of(devices.begin(), devices.end(),
                     [&](const Device& device) { return device.key == key; });
}

bool is_gone(const Target& target) {
  const vpn_peer& peer = target.peer;
  switch (peer.vpn_type) {
    case WIREGUARD_SERVER_TYPE: return !wireguard_has(target.device.key);
    case OVPN_SERVER_TYPE: return !is_listed(peer) && !openvpn_has(peer);
    case DROVIK_SERVER_TYPE: return !is_listed(peer) && !drovik_has(peer);
    default: return !is_listed(peer) && !ppp_has(peer);
  }
}

// The connections that a request names; those that do not exist are left out.
std::vector<Target> read_targets(const Request& request) {
  std::vector<Target> targets;
  std::set<std::string> seen;
  std::vector<vpn_peer> peers;
  read_peers(peers);
  std::vector<Device> devices;
  for (const char* conn : request.values("conn")) {
    if (!seen.insert(conn).second) continue;
    const auto peer = std::find_if(peers.begin(), peers.end(),
                                   [&](const vpn_peer& known) { return name_of(known) == conn; });
    if (peer != peers.end()) {
      targets.push_back({conn, *peer});
      continue;
    }
    if (devices.empty()) devices = live_devices();
    const auto device = std::find_if(devices.begin(), devices.end(), [&](const Device& known) {
      return named(WIREGUARD_SERVER_TYPE, known.key) == conn;
    });
    if (device == devices.end()) continue;
    targets.push_back({conn, {}, *device});
    targets.back().peer.vpn_type = WIREGUARD_SERVER_TYPE;
  }
  return targets;
}

bool hold_users(const std::vector<Target>& targets, int minutes, const std::string& by) {
  constexpr int SECONDS = 60;
  const std::string seconds = std::to_string(int64_t{minutes} * SECONDS);
  return std::all_of(targets.begin(), targets.end(), [&](const Target& target) {
    const std::string& who = target.is_device() ? target.device.key : target.peer.vpn_user;
    const std::string& name = target.is_device() ? target.device.name : who;
    return hold::run({"add", target.is_device() ? "peer" : "user", who, seconds, name, by}) == 0;
  });
}

// Looks until all are gone or the time is over.
void wait_until_gone(std::vector<Target>& targets) {
  const auto start = Clock::now();
  while (true) {
    bool all = true;
    for (Target& target : targets) {
      if (!target.gone && is_gone(target)) {
        target.gone = true;
        target.took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
      }
      all = all && target.gone;
    }
    if (all || Clock::now() - start >= GONE_TIME) return;
    std::this_thread::sleep_for(PAUSE);
  }
}

}  // namespace

bool end_peer(const vpn_peer& peer) {
  std::ignore = kick_peer(peer, peer.vpn_type);  // a failure shows in what is still there
  std::vector<Target> target;
  target.push_back({name_of(peer), peer});
  wait_until_gone(target);
  return target.front().gone;
}

namespace {

Outcome end_connections(const Request& request, JsonValue& reply) {
  const int minutes = request.number("minutes", 0);
  if (minutes < 0 || minutes > MOST_MINUTES) return {ERR_VALUE, "minutes"};
  std::vector<Target> targets = read_targets(request);
  if (targets.empty()) return {ERR_CONFIGURE_INDEX, "no one is connected there"};
  const bool device = std::any_of(targets.begin(), targets.end(),
                                  [](const Target& target) { return target.is_device(); });
  if (device && minutes == 0)
    return {ERR_VALUE, "a WireGuard device can only be kept out for a time"};
  // The hold comes before: a disconnected client reconnects at once.
  if (minutes > 0 && !hold_users(targets, minutes, hold::asker(request)))
    return {ERR_SAVE_FILE, "the list of those who are kept out cannot be changed"};
  for (const Target& target : targets) {
    if (!target.is_device())
      std::ignore =
          kick_peer(target.peer, target.peer.vpn_type);  // a failure shows in what is still there
  }
  wait_until_gone(targets);

  const Json holds = minutes > 0 ? held_now() : nullptr;
  JsonValue& data = reply["data"].make_array();
  bool all = true;
  for (const Target& target : targets) {
    const std::string& who = target.is_device() ? target.device.key : target.peer.vpn_user;
    auto item = std::make_unique<JsonValue>();
    (*item)["conn"] = system::valid_utf8(target.conn);
    (*item)["name"] = system::valid_utf8(target.is_device() ? target.device.name : who);
    (*item)["gone"] = target.gone;
    (*item)["ms"] = static_cast<int64_t>(target.took.count());
    (*item)["held_until"] =
        hold::until(holds.get(), target.is_device() ? "peer" : "user", system::valid_utf8(who));
    data.append(std::move(item));
    all = all && target.gone;
  }
  if (all) return {};
  return {ERR_KILL_PROCESS, "a connection is still there", true};
}

Outcome list_holds(const Request&, JsonValue& reply) {
  Json holds = held_now();
  if (!holds) return {ERR_CMD_FAILED, "the list of those who are kept out cannot be read"};
  reply["data"] = holds.release();
  return {};
}

Outcome lift_hold(const Request& request, JsonValue&) {
  if (!request.filled("who")) return {ERR_MISS_OPTION};
  const int rc = hold::run({"lift", request.value("who")});
  if (rc == hold::NOT_FOUND) return {ERR_CONFIGURE_INDEX, "no one of that name is kept out"};
  if (rc != 0) return {ERR_SAVE_FILE, "the list of those who are kept out cannot be changed"};
  return {};
}

constexpr Route ROWS[] = {
    {"/ormel/connection/all", ADMINISTRATOR, READS, json<list_all>},
    {"/ormel/connection/end", ADMINISTRATOR, CHANGES, json<end_connections>, MULTIPLE_VAR_MODE},
    {"/ormel/hold/list", ADMINISTRATOR, READS, json<list_holds>},
    {"/ormel/hold/lift", ADMINISTRATOR, CHANGES, json<lift_hold>},
};

}  // namespace

std::optional<int64_t> recent_devices() {
  std::vector<Device> devices;
  if (!read_devices(devices)) return {};
  const std::time_t now = std::time(nullptr);
  return std::ranges::count_if(devices,
                               [now](const Device& device) { return is_recent(device, now); });
}

const Routes ENDINGS{ROWS};

}  // namespace ormel::cgi::connection
