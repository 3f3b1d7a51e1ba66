#include "ormel/web/connection.h"

#include <cstdlib>
#include <limits>
#include <memory>

#include <fenro/datetime.h>

#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/drivers/drovik/drovik.h"
#include "ormel/host/bus.h"
#include "ormel/host/sessions.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::connection {

namespace {

constexpr size_t DATE_SIZE = 256;  // four times what the platform asks for
constexpr char TYPE_MARK = '|';    // "type|key" names a connection

std::string date_and_time(std::time_t seconds) {
  char text[DATE_SIZE] = "";
  std::ignore = Change_Date_Time_To_String(seconds, text);  // the text is empty then
  return text;
}

// Bounded: a damaged line can hold any number.
int64_t seconds_between(std::time_t begin, std::time_t end) {
  int64_t seconds = 0;
  if (!__builtin_sub_overflow(int64_t{end}, int64_t{begin}, &seconds)) return seconds;
  return begin < end ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

void describe_peer(const vpn_peer& peer, const byteStat& stat, std::time_t now, JsonValue& out) {
  out["type"] = peer.vpn_type;
  out["name"] = system::valid_utf8(peer.vpn_user);
  out["login"] = date_and_time(peer.vpn_time);
  out["target"] = system::valid_utf8(key_of(peer));
  out["uptime"] = seconds_between(peer.vpn_time, now);
  out["source_ip"] = system::valid_utf8(peer.vpn_source);
  out["allocate_ip"] = system::valid_utf8(peer.vpn_remote);
  out["device_info"] =
      peer.vpn_type == DROVIK_SERVER_TYPE ? system::valid_utf8(peer.vpn_dev_info) : "";
  out["rx_total"] = stat.rx_bytes;
  out["tx_total"] = stat.tx_bytes;
  out["rx_rate"] = stat.rx_rate;
  out["tx_rate"] = stat.tx_rate;
}

}  // namespace

uint64_t append_peers(JsonValue& rows, std::time_t now,
                      const std::function<void(const vpn_peer&, JsonValue&)>& finish,
                      const std::function<bool(const vpn_peer&)>& chosen) {
  std::vector<vpn_peer> peers;
  if (!read_peers(peers)) return 0;
  std::erase_if(peers, [&](const vpn_peer& peer) { return !chosen(peer); });
  const std::map<std::string, byteStat> stats = get_all_server_stat();
  for (const vpn_peer& peer : peers) {
    const auto stat = stats.find(key_of(peer));
    auto row = std::make_unique<JsonValue>();
    describe_peer(peer, stat == stats.end() ? byteStat{} : stat->second, now, *row);
    finish(peer, *row);
    rows.append(std::move(row));
  }
  return peers.size();
}

int kick_peer(const vpn_peer& peer, long type) {
  switch (type) {
    case OVPN_SERVER_TYPE:
      system::kick_one_connection(OVPN_SERVER_TYPE, source_and_port(peer).c_str());
      break;
    case PPTP_SERVER_TYPE:
    case L2TP_SERVER_TYPE:
      system::kick_one_connection(static_cast<TYPE>(type),
                                  std::to_string(peer.vpn_pid_port).c_str());
      break;
    case DROVIK_SERVER_TYPE: return drovik::drovik_server_kick_client(peer.vpn_eth.c_str());
    default: break;
  }
  return NO_ERROR;
}

namespace {

int list_peers(const Request&, JsonValue& reply) {
  JsonValue& data = reply["data"].make_array();
  reply["total"] = append_peers(data, std::time(nullptr));
  return NO_ERROR;
}

int kick_peers(const Request& request, JsonValue&) {
  std::vector<vpn_peer> peers;
  read_peers(peers);
  std::map<std::string, const vpn_peer*> by_key;
  for (const vpn_peer& peer : peers) by_key[key_of(peer)] = &peer;

  for (char* name : request.values("conn")) {
    const char* const key = cut_pattern(name, TYPE_MARK);
    if (!key) continue;
    const auto known = by_key.find(key);
    if (known == by_key.end()) continue;
    if (const int rc = kick_peer(*known->second, std::strtol(name, nullptr, 10)); rc != NO_ERROR) {
      ORMEL_LOG(ERROR, "kick of %s failed, ret:%d", escape_json(key).c_str(), rc);
      return rc;
    }
  }
  return NO_ERROR;
}

constexpr Route ROWS[] = {
    {"/ormel/connection/list", ADMINISTRATOR, READS, json<list_peers>},
    {"/ormel/connection/kick", ADMINISTRATOR, CHANGES, json<kick_peers>, MULTIPLE_VAR_MODE},
};

}  // namespace

const Routes CONNECTIONS{ROWS};

}  // namespace ormel::cgi::connection
