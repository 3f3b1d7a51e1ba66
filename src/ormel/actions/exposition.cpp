#include "ormel/actions/exposition.h"

#include <map>
#include <set>
#include <vector>

#include "base/lines.h"
#include "base/utf8.h"

namespace ormel::metrics {

namespace {

// clang-format off
constexpr Family FAMILIES[] = {
    {"ormel_build_info", "gauge", "The version of the program; always 1."},
    {"ormel_daemon_up", "gauge", "Whether a daemon of the service bus answers."},
    {"ormel_config_readable", "gauge", "Whether the settings of servers and tunnels can be read."},
    {"ormel_server_enabled", "gauge", "Whether a server is on."},
    {"ormel_server_up", "gauge", "Whether a server runs and can be reached by clients."},
    {"ormel_server_info", "gauge", "The state of a server, with the reason where it does not work; always 1."},
    {"ormel_sessions", "gauge", "Sessions of a server; for WireGuard, devices with a handshake in the last 180 seconds."},
    {"ormel_session_receive_bytes", "gauge", "Bytes received in the live sessions of a user."},
    {"ormel_session_transmit_bytes", "gauge", "Bytes sent in the live sessions of a user."},
    {"ormel_tunnel_up", "gauge", "Whether a client tunnel is up."},
    {"ormel_tunnel_info", "gauge", "The state of a client tunnel, with the reason where it does not work; always 1."},
    {"ormel_tunnel_receive_bytes_total", "counter", "Bytes received on a client tunnel since it came up."},
    {"ormel_tunnel_transmit_bytes_total", "counter", "Bytes sent on a client tunnel since it came up."},
    {"ormel_tunnel_handshake_age_seconds", "gauge", "Seconds since the latest handshake of a WireGuard tunnel."},
    {"ormel_gateway_active", "gauge", "Whether a tunnel of the gateway policy carries the traffic of this host now."},
    {"ormel_gateway_switches_total", "counter", "Switches of the default gateway since the network daemon started."},
    {"ormel_guard_holding", "gauge", "Whether traffic is held back for want of a tunnel."},
    {"ormel_guard_dropped_packets_total", "counter", "Packets that the guard has stopped."},
    {"ormel_login_failures_1h", "gauge", "Refused logins to a server in the last hour, of the latest 2000 refusals."},
    {"ormel_users_blocked", "gauge", "Users who are blocked for wrong passwords."},
    {"ormel_certificate_not_after_seconds", "gauge", "When a certificate ends, or the next list of revoked ones is due, in seconds since 1970."},
    {"ormel_keeper_restarts_total", "counter", "Times that the keeper has started a server or tunnel again."},
};
// clang-format on

std::string escaped(std::string_view value) {
  std::string out;
  for (const char c : fenro::valid_utf8(value)) {
    if (c == '\\' || c == '"') out += '\\';
    if (c == '\n')
      out += "\\n";
    else if (c != '\0')
      out += c;
  }
  return out;
}

std::string_view name_of(std::string_view line) {
  return line.substr(0, line.find_first_of("{ "));
}

// A sample without its number, which follows the last blank.
std::string_view series_of(std::string_view line) {
  return line.substr(0, line.rfind(' '));
}

}  // namespace

std::span<const Family> families() {
  return FAMILIES;
}

std::string sample(std::string_view family, const Labels& labels, int64_t number) {
  std::string inside;
  for (const auto& [label, value] : labels) {
    if (value.empty()) continue;
    inside += (inside.empty() ? "" : ",") + std::string(label) + "=\"" + escaped(value) + '"';
  }
  std::string line(family);
  if (!inside.empty()) line += '{' + inside + '}';
  return line + ' ' + std::to_string(number) + '\n';
}

std::string document(std::string_view samples) {
  std::map<std::string_view, std::vector<std::string_view>> by_family;
  std::set<std::string_view> known;
  while (!samples.empty()) {
    const std::string_view line = fenro::take_line(samples);
    if (known.insert(series_of(line)).second) by_family[name_of(line)].push_back(line);
  }
  std::string text;
  for (const Family& family : FAMILIES) {
    const auto found = by_family.find(family.name);
    if (found == by_family.end()) continue;
    const std::string name(family.name);
    text.append("# HELP ").append(name).append(" ").append(family.help);
    text.append("\n# TYPE ").append(name).append(" ").append(family.type).append("\n");
    for (const std::string_view line : found->second) text.append(line).append("\n");
  }
  return text;
}

}  // namespace ormel::metrics
