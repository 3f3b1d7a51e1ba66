#include "ormel/actions/tunnel_state.h"

#include <algorithm>
#include <sys/stat.h>
#include <unistd.h>

#include "base/tunnel.h"
#include "ormel/base/file.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/wireguard/tool.h"
#include "ormel/drivers/wireguard/wireguard.h"
#include "ormel/host/vpn_process.h"

namespace ormel {
namespace {

constexpr std::time_t START_SECONDS = 60;  // that a start may take before its daemon runs
constexpr std::time_t SAVED_SECONDS =
    5;  // between the saving of a record and the first word of its script
constexpr std::time_t HANDSHAKE_SECONDS =
    180;  // after which WireGuard itself counts a session as over
constexpr std::time_t FIRST_HANDSHAKE_SECONDS = 10;

constexpr const char* NAMES[] = {"off",      "starting", "up",          "no-peer",
                                 "retrying", "running",  "unreachable", "failed"};

NotedReason computed(std::string_view code, std::time_t since) {
  return {find_reason(code), since, since, 1, {}};
}

bool interface_exists(const std::string& name) {
  return access(("/sys/class/net/" + name).c_str(), F_OK) == 0;
}

// The program saves a record before it runs the script.
bool just_saved(std::time_t now) {
  struct stat info {};
  return stat(config::VPN_CONF, &info) == 0 && now - info.st_mtime < SAVED_SECONDS;
}

// Of something that is wanted and does not run.
TunnelState not_running(const std::optional<NotedReason>& noted, std::time_t now) {
  if (noted && noted->facts) return {State::Failed, noted->since, noted};
  if (noted && now - noted->at < START_SECONDS) return {State::Starting, noted->at, {}};
  if (!noted && just_saved(now)) return {State::Starting, now, {}};
  return {State::Failed, 0, computed("daemon-ended", 0)};
}

// The firewall rules that clients need, by what the scripts have left in vpn.conf.
bool rules_set(const config::BaseConfig& server) {
  std::string content;
  return !system::read_file(config::VPN_CONF, content) ||
         !(reports_failure(content, ENTRANCE_LINE) ||
           reports_failure(content, server.section + RULES_LINE));
}

TunnelState server_state(const config::BaseConfig& server, std::time_t now) {
  if (!server.enable) return {};
  // Records of servers come without their process.
  const bool runs = server.type == WIREGUARD_SERVER_TYPE
                        ? interface_exists(wireguard::SERVER_INTERFACE)
                        : system::server_runs(server.type);
  // A daemon that is about to fail is there for a moment, too. A start that has succeeded removes
  // what was noted.
  const std::optional<NotedReason> noted = read_reason(server.section);
  if (!runs || noted) return not_running(noted, now);
  if (!rules_set(server)) return {State::Unreachable, 0, computed("entrance-not-set", 0)};
  return {State::Running, 0, {}};
}

// A peer that is there answers a handshake at least every three minutes while packets go out.
TunnelState wireguard_state(const config::ClientConfig& client,
                            const std::optional<NotedReason>& noted, std::time_t now) {
  const std::optional<std::time_t> handshake = wireguard::latest_handshake(client.index);
  const bool silence_noted = noted && noted->facts == find_reason("no-handshake");
  const bool fresh = handshake ? now - *handshake <= HANDSHAKE_SECONDS : !silence_noted;
  if (fresh) return {State::Up, client.timestamp, {}};
  if (handshake.value_or(0) == 0 && now - client.timestamp < FIRST_HANDSHAKE_SECONDS) {
    return {State::Starting, client.timestamp, {}};
  }
  if (silence_noted) return {State::NoPeer, noted->since, noted};
  const std::time_t since =
      handshake.value_or(0) == 0 ? client.timestamp : *handshake + HANDSHAKE_SECONDS;
  return {State::NoPeer, since, computed("no-handshake", since)};
}

TunnelState client_state(const config::ClientConfig& client, std::time_t now) {
  const bool wireguard = client.type == WIREGUARD_CLIENT_TYPE;
  const bool runs =
      wireguard ? interface_exists(interface_name(client.type, client.index)) : client.pid != 0;
  if (!client.enable && !runs) return {};
  const auto noted = read_reason(client.section);
  if (wireguard && runs && !client.local_ip.empty()) return wireguard_state(client, noted, now);
  // The reason is removed when the tunnel comes up, so one that is there counts more than an
  // address.
  if (noted && noted->facts) {
    return {noted->facts->final || !client.reconnect ? State::Failed : State::Retrying,
            noted->since, noted};
  }
  if (runs && !client.local_ip.empty()) return {State::Up, client.timestamp, {}};
  if (runs) return {State::Starting, noted ? noted->at : 0, {}};
  return not_running(noted, now);
}

}  // namespace

const char* state_name(State state) {
  return NAMES[static_cast<size_t>(state)];
}

TunnelState tunnel_state(const config::BaseConfig& record) {
  const std::time_t now = std::time(nullptr);
  return is_client(record.type)
             ? client_state(static_cast<const config::ClientConfig&>(record), now)
             : server_state(record, now);
}

const std::string& encoded_name(const config::BaseConfig& record) {
  static const std::string NONE;
  if (is_server(record.type)) return NONE;
  if (record.type == WIREGUARD_CLIENT_TYPE)
    return static_cast<const wireguard::ClientConfig&>(record).client_name;
  return static_cast<const config::ClientConfig&>(record).name;
}

void show_state(const TunnelState& state, JsonValue& out) {
  out["state"] = state_name(state.state);
  out["since"] = static_cast<int64_t>(state.since);
  JsonValue& reason = out["reason"];
  if (!state.reason) return;
  const ReasonFacts& facts = *state.reason->facts;
  reason["code"] = facts.code;
  reason["final"] = facts.final;
  reason["at"] = static_cast<int64_t>(state.reason->at);
  reason["count"] = static_cast<int64_t>(state.reason->count);
  reason["text"] = reason_text(*state.reason);
  reason["detail"] = state.reason->detail;
  reason["advice"] = facts.advice;
}

bool reports_failure(std::string_view content, std::string_view text) {
  const size_t found = content.find(text);
  if (found == std::string_view::npos) return false;
  const size_t begin = content.rfind('\n', found) + 1;
  return content.substr(begin, std::min(content.find('\n', found), content.size()) - begin)
             .find("FALSE") != std::string_view::npos;
}

}  // namespace ormel
