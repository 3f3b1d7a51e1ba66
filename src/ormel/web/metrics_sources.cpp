// Where the figures come from.
#include <algorithm>
#include <cerrno>
#include <ctime>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "base/file.h"
#include "base/lines.h"
#include "base/online_line.h"
#include "base/tunnel.h"
#include "ormel/actions/audit_state.h"
#include "ormel/actions/certificates.h"
#include "ormel/actions/exposition.h"
#include "ormel/actions/gateway_policy.h"
#include "ormel/actions/log_db.h"
#include "ormel/actions/log_db_call.h"
#include "ormel/actions/tunnel_state.h"
#include "ormel/base/text.h"
#include "ormel/host/bus.h"
#include "ormel/host/daemons.h"
#include "ormel/host/process.h"
#include "ormel/web/connection.h"
#include "ormel/web/metrics.h"

namespace ormel::cgi::metrics {

namespace {

using ormel::config::BaseConfig;
using ormel::metrics::sample;

constexpr int BUS_SECONDS = 1;
constexpr int MOST_PROFILES = 64;   // of one protocol
constexpr size_t MOST_USERS = 250;  // with two series each
constexpr const char* WIREGUARD_SCRIPT = "/etc/init.d/vpn_wireguard.sh";
constexpr const char* WG = "/usr/bin/wg";
constexpr const char* BLOCK_POLICY = "/etc/config/vpn_block.conf";

std::string protocol_of(TYPE type) {
  return to_lower(tunnel_of(type).log_name);
}

// What names a client profile in labels. A second profile of the same name has its index, too.
struct Profile {
  const ormel::config::ClientConfig* record;
  std::string protocol, name;
};

std::vector<Profile> profiles_in(const ormel::config::Management& pool) {
  std::vector<Profile> all;
  std::map<TYPE, int> counts;
  std::set<std::pair<std::string, std::string>> known;
  for (const auto& holder : pool.config_pool) {
    const BaseConfig& record = *holder->bc;
    if (!is_client(record.type) || ++counts[record.type] > MOST_PROFILES) continue;
    Profile profile{static_cast<const ormel::config::ClientConfig*>(&record),
                    protocol_of(record.type), ormel::audit::percent_decoded(encoded_name(record))};
    if (!known.emplace(profile.protocol, profile.name).second)
      profile.name += '/' + std::to_string(record.index);
    all.push_back(std::move(profile));
  }
  return all;
}

std::string_view code_of(const TunnelState& state) {
  return state.reason ? std::string_view(state.reason->facts->code) : std::string_view();
}

std::string server_samples(const ormel::config::Management& pool) {
  std::string text;
  for (const auto& holder : pool.config_pool) {
    const BaseConfig& record = *holder->bc;
    if (!is_server(record.type)) continue;
    const TunnelState state = tunnel_state(record);
    const std::string protocol = protocol_of(record.type);
    text += sample("ormel_server_enabled", {{"protocol", protocol}}, record.enable ? 1 : 0);
    text += sample("ormel_server_up", {{"protocol", protocol}}, state.state == State::Running);
    text += sample(
        "ormel_server_info",
        {{"protocol", protocol}, {"state", state_name(state.state)}, {"reason", code_of(state)}},
        1);
  }
  return text;
}

// A counter of the kernel for an interface; -1 where there is none.
int64_t counter_of(const std::string& interface, const char* name) {
  int64_t number = -1;
  const Fd file{
      open(("/sys/class/net/" + interface + "/statistics/" + name).c_str(), O_RDONLY | O_CLOEXEC)};
  char text[32] = "";
  const ssize_t length = file ? read(file.get(), text, sizeof text) : 0;
  const std::string_view digits(text, static_cast<size_t>(std::max<ssize_t>(length, 0)));
  return fenro::parse_number(fenro::trimmed(digits), number) ? number : -1;
}

std::string byte_samples(const Profile& profile, const std::string& interface) {
  constexpr std::pair<const char*, const char*> COUNTERS[] = {
      {"ormel_tunnel_receive_bytes_total", "rx_bytes"},
      {"ormel_tunnel_transmit_bytes_total", "tx_bytes"}};
  std::string text;
  for (const auto& [family, counter] : COUNTERS) {
    const int64_t bytes = counter_of(interface, counter);
    if (bytes >= 0)
      text += sample(family, {{"protocol", profile.protocol}, {"profile", profile.name}}, bytes);
  }
  return text;
}

// The latest handshake of each WireGuard interface; 0 for never. The script runs in the unit that
// has the rights to ask.
std::map<std::string, int64_t> handshakes() {
  std::string text;
  if (system::do_exec_safe({WIREGUARD_SCRIPT, "handshakes"}, text) != 0)
    std::ignore = system::do_exec_safe({WG, "show", "all", "latest-handshakes"}, text);
  std::map<std::string, int64_t> all;
  for (std::string_view rest = text; !rest.empty();) {
    std::string_view line = fenro::take_line(rest);
    const std::string_view interface = fenro::take_until(line, '\t');
    std::ignore = fenro::take_until(line, '\t');
    int64_t at = 0;
    if (fenro::parse_number(line, at)) all.emplace(interface, at);
  }
  return all;
}

std::string handshake_samples(const std::vector<Profile>& profiles) {
  const auto is_wireguard = [](const Profile& profile) {
    return profile.record->type == WIREGUARD_CLIENT_TYPE;
  };
  if (std::ranges::none_of(profiles, is_wireguard)) return {};
  std::string text;
  const std::map<std::string, int64_t> latest = handshakes();
  for (const Profile& profile : profiles) {
    const auto found = latest.find(interface_name(profile.record->type, profile.record->index));
    if (found == latest.end() || found->second == 0) continue;
    text += sample("ormel_tunnel_handshake_age_seconds",
                   {{"protocol", profile.protocol}, {"profile", profile.name}},
                   std::max<int64_t>(std::time(nullptr) - found->second, 0));
  }
  return text;
}

std::string tunnel_samples(const std::vector<Profile>& profiles) {
  std::string text;
  for (const Profile& profile : profiles) {
    const TunnelState state = tunnel_state(*profile.record);
    text += sample("ormel_tunnel_up", {{"protocol", profile.protocol}, {"profile", profile.name}},
                   state.state == State::Up);
    text += sample("ormel_tunnel_info",
                   {{"protocol", profile.protocol},
                    {"profile", profile.name},
                    {"state", state_name(state.state)},
                    {"reason", code_of(state)}},
                   1);
    if (state.state != State::Off)
      text += byte_samples(profile, interface_name(profile.record->type, profile.record->index));
  }
  return text;
}

// A host that has never had a connection has no list, which is not a failure.
std::string session_samples() {
  std::vector<connection::vpn_peer> peers;
  const bool empty = access(fenro::ONLINE_USERS, F_OK) != 0 && errno == ENOENT;
  if (!connection::read_peers(peers) && !empty) return {};
  std::string text;
  for (const TunnelFacts& facts : TUNNELS) {
    if (facts.sessions == Sessions::NONE) continue;
    const auto count = std::ranges::count(peers, static_cast<uint32_t>(facts.server),
                                          &connection::vpn_peer::vpn_type);
    text += sample("ormel_sessions", {{"protocol", protocol_of(facts.server)}}, count);
  }
  return text;
}

std::string device_samples(const ormel::config::Management& pool) {
  const ormel::config::PolyConfig* const server = pool.fetch(WIREGUARD_SERVER_TYPE, 0);
  const bool on = server && server->bc->enable;
  const std::optional<int64_t> devices = on ? connection::recent_devices() : 0;
  if (!devices) return {};
  return sample("ormel_sessions", {{"protocol", protocol_of(WIREGUARD_SERVER_TYPE)}}, *devices);
}

// Of the sessions in the list of live connections, by what the counting daemon says of each.
std::string user_samples() {
  std::vector<connection::vpn_peer> peers;
  if (!connection::read_peers(peers)) return {};
  const std::map<std::string, byteStat> stats = get_all_server_stat();
  std::map<std::pair<uint32_t, std::string>, std::pair<uint64_t, uint64_t>> sums;
  for (const connection::vpn_peer& peer : peers) {
    const auto stat = stats.find(key_of(peer));
    if (stat == stats.end() || !find_tunnel(static_cast<TYPE>(peer.vpn_type))) continue;
    const std::pair user{peer.vpn_type, peer.vpn_user};
    if (sums.size() >= MOST_USERS && !sums.contains(user)) continue;
    sums[user].first += stat->second.rx_bytes;
    sums[user].second += stat->second.tx_bytes;
  }
  std::string text;
  for (const auto& [user, bytes] : sums) {
    const std::string protocol = protocol_of(static_cast<TYPE>(user.first));
    const ormel::metrics::Labels labels{{"protocol", protocol}, {"user", user.second}};
    text += sample("ormel_session_receive_bytes", labels, static_cast<int64_t>(bytes.first));
    text += sample("ormel_session_transmit_bytes", labels, static_cast<int64_t>(bytes.second));
  }
  return text;
}

// The kinds of refusals, by a word of their reason; the first match counts.
struct Cause {
  std::string_view word;
  const char* label;
};
constexpr Cause CAUSES[] = {
    {"blocked", "blocked"},   {"kept out", "held"}, {"second factor", "second-factor"},
    {"password", "password"}, {"right", "right"},   {"", "other"}};

const char* cause_of(const std::string& reason) {
  return std::ranges::find_if(
             CAUSES, [&](const Cause& row) { return reason.find(row.word) != std::string::npos; })
      ->label;
}

// Pages of the log from its newest row on, until `take` wants no more. False without an answer.
template <typename Row, typename Take>
bool walk(const char* method, db_query_cond page, int64_t most, Take take) {
  constexpr int64_t PAGE = 100;
  page.count = PAGE;
  for (; page.start < most; page.start += PAGE) {
    log_db::RawAnswer raw{};
    if (!log_db::query(__func__, method, page, sizeof(Row), raw)) return false;
    const log_db::Answer<Row> answer{{raw.count, raw.total, static_cast<Row*>(raw.data)}};
    for (const Row& row : answer.rows()) {
      if (!take(row)) return true;
    }
    if (answer.rows().size() < PAGE) return true;
  }
  return true;
}

std::string failure_samples() {
  constexpr int64_t MOST_REFUSALS = 2000;
  constexpr std::time_t HOUR = 3600;
  const std::time_t since = std::time(nullptr) - HOUR;
  db_query_cond refused{};
  refused.order_style = 1;  // the newest first
  fill_field(refused.field, "action");
  fill_field(refused.value, "1");
  std::map<std::pair<TYPE, std::string>, int64_t> counts;
  for (const TunnelFacts& facts : TUNNELS) {
    if (facts.logged) counts[{facts.server, "password"}] = 0;
  }
  const bool answered = walk<db_conn_server_log>(
      log_db::CONN_SERVER_LOG.query, refused, MOST_REFUSALS, [&](const db_conn_server_log& row) {
        if (std::cmp_less(row.time, since)) return false;
        const auto type = static_cast<TYPE>(row.vpn_type);
        if (find_tunnel(type)) ++counts[{type, cause_of(field_text(row.device_info))}];
        return true;
      });
  std::string text;
  for (const auto& [key, count] : counts) {
    const std::string protocol = protocol_of(key.first);
    if (answered)
      text += sample("ormel_login_failures_1h", {{"protocol", protocol}, {"reason", key.second}},
                     count);
  }
  return text;
}

// The policy of the daemon that blocks users, with its defaults for missing members. Null when it
// cannot be read: the daemon then counts everybody as blocked.
Json block_rules() {
  std::string text;
  const int failure = fenro::read_file(BLOCK_POLICY, text);
  Json rules{json_pack("{s:b, s:i, s:i}", "enable", 1, "limit", 5, "time", 30)};
  if (failure == ENOENT) return rules;
  const Json document{json_loadb(text.data(), text.size(), 0, nullptr)};
  json_t* const stored = json_object_get(document.get(), "global");
  if (!json_is_object(stored)) return nullptr;
  json_object_update_existing(rules.get(), stored);
  return rules;
}

std::string block_samples() {
  constexpr int64_t MOST_BLOCKS = 20000;
  constexpr json_int_t MINUTE = 60;
  const Json rules = block_rules();
  if (!rules) return {};
  const json_int_t limit = json_integer_value(json_object_get(rules.get(), "limit"));
  const json_int_t seconds = json_integer_value(json_object_get(rules.get(), "time")) * MINUTE;
  const std::time_t now = std::time(nullptr);
  int64_t blocked = 0;
  const bool answered = walk<db_privilege_user_block_data>(
      log_db::PRIVILEGE_USER_BLOCK.query, {}, MOST_BLOCKS,
      [&](const db_privilege_user_block_data& row) {
        const auto last = static_cast<std::time_t>(row.timestamp);
        if (row.limit >= limit && now - last < seconds) ++blocked;
        return true;
      });
  if (json_is_false(json_object_get(rules.get(), "enable"))) blocked = 0;
  return answered ? sample("ormel_users_blocked", {}, blocked) : std::string();
}

std::string log_samples(const std::vector<Profile>&) {
  return failure_samples() + block_samples();
}

// The tunnels of the policy, by their interfaces.
std::set<std::string> policy_interfaces() {
  std::set<std::string> names;
  const Json setting = GlobalConfig().load("gw_setting");
  for (const char* key : {"gw1", "gw2"}) {
    const json_t* const gateway = json_object_get(setting.get(), key);
    const auto type = static_cast<TYPE>(json_integer_value(json_object_get(gateway, "type")));
    const auto index = system::cut_number<int>(json_object_get(gateway, "index"));
    if (is_client(type)) names.insert(interface_name(type, index));
  }
  return names;
}

void add_number(std::string& text, const char* family, const json_t* value) {
  if (json_is_integer(value)) text += sample(family, {}, json_integer_value(value));
}

std::string gateway_samples(const std::vector<Profile>& profiles) {
  const system::PlainReply reply =
      system::plain_call(system::NETWORK_SERVICE, "external_dev.guard_state", nullptr, BUS_SECONDS);
  const char* const in_use = json_string_value(json_object_get(reply.data(), "interface"));
  if (!in_use) return {};
  std::string text;
  const std::set<std::string> wanted = policy_interfaces();
  for (const Profile& profile : profiles) {
    const std::string interface = interface_name(profile.record->type, profile.record->index);
    if (wanted.contains(interface))
      text +=
          sample("ormel_gateway_active",
                 {{"protocol", profile.protocol}, {"profile", profile.name}}, interface == in_use);
  }
  add_number(text, "ormel_gateway_switches_total", json_object_get(reply.data(), "switches"));
  const json_t* const held = json_object_get(reply.data(), "held");
  if (json_is_boolean(held)) text += sample("ormel_guard_holding", {}, json_is_true(held));
  const json_t* const stopped = json_object_get(reply.data(), "stopped");
  int64_t packets = 0;
  for (const char* kind : {"ipv4", "ipv6", "dns"})
    packets += json_integer_value(json_object_get(stopped, kind));
  if (stopped) text += sample("ormel_guard_dropped_packets_total", {}, packets);
  return text;
}

std::string keeper_samples(const std::vector<Profile>& profiles) {
  const system::PlainReply reply =
      system::plain_call(system::KEEPER_SERVICE, "keeper.show", nullptr, BUS_SECONDS);
  std::map<std::string, std::pair<std::string, std::string>> names;  // by section
  for (const TunnelFacts& facts : TUNNELS) names[facts.section] = {protocol_of(facts.server), ""};
  for (const Profile& profile : profiles)
    names[profile.record->section] = {profile.protocol, profile.name};
  std::string text;
  size_t at = 0;
  const json_t* row = nullptr;
  json_array_foreach(reply.data(), at, row) {
    const char* const section = json_string_value(json_object_get(row, "section"));
    const auto name = names.find(section ? section : "");
    const json_t* const restarts = json_object_get(row, "restarts");
    if (name == names.end() || !json_is_integer(restarts)) continue;
    const auto& [protocol, profile] = name->second;
    text += sample("ormel_keeper_restarts_total", {{"protocol", protocol}, {"profile", profile}},
                   json_integer_value(restarts));
  }
  return text;
}

std::string certificate_samples(const ormel::config::Management& pool,
                                const std::vector<Profile>& profiles) {
  std::string text;
  for (const certificates::Certificate& one : certificates::list(pool)) {
    const auto profile = std::ranges::find_if(profiles, [&one](const Profile& known) {
      return known.record->type == one.type && known.record->index == one.index;
    });
    if (one.ends())
      text += sample("ormel_certificate_not_after_seconds",
                     {{"role", name_of(one.role)},
                      {"subject", one.subject},
                      {"profile", profile == profiles.end() ? std::string_view()
                                                            : std::string_view(profile->name)}},
                     one.not_after);
  }
  return text;
}

// What else a daemon is asked.
struct Figures {
  std::string_view service;
  std::string (*ask)(const std::vector<Profile>& profiles);
};
constexpr Figures FIGURES[] = {{log_db::SERVICE, log_samples},
                               {system::NETWORK_SERVICE, gateway_samples},
                               {system::KEEPER_SERVICE, keeper_samples}};

std::string daemon_sample(const system::BusDaemon& daemon, bool up) {
  return sample("ormel_daemon_up", {{"daemon", daemon.name}}, up);
}

// A separate question, since a daemon that is slow with its figures still answers.
void add_questions(std::vector<Source>& all, const system::BusDaemon& daemon,
                   const std::vector<Profile>& profiles) {
  all.push_back(
      {[&daemon] { return daemon_sample(daemon, system::serves(daemon.service, BUS_SECONDS)); },
       daemon_sample(daemon, false)});
  for (const Figures& row : FIGURES) {
    if (row.service == daemon.service)
      all.push_back({[&row, profiles] { return row.ask(profiles); }});
  }
}

}  // namespace

std::vector<Source> sources(const ormel::config::Management& pool, bool users) {
  const std::vector<Profile> profiles = profiles_in(pool);
  const bool readable = !ormel::config::fault_of_settings();
  std::vector<Source> all{{[readable] { return sample("ormel_config_readable", {}, readable); }},
                          {session_samples},
                          {[&pool, profiles] { return certificate_samples(pool, profiles); }}};
  // What damaged settings seem to say, everything being off, is not so.
  if (readable) {
    all.push_back({[&pool] { return server_samples(pool); }});
    all.push_back({[&pool] { return device_samples(pool); }});
    all.push_back({[profiles] { return tunnel_samples(profiles); }});
    all.push_back({[profiles] { return handshake_samples(profiles); }});
  }
  if (users) all.push_back({user_samples});
  for (const system::BusDaemon& daemon : system::BUS_DAEMONS) add_questions(all, daemon, profiles);
  return all;
}

}  // namespace ormel::cgi::metrics
