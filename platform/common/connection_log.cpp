#include "common/connection_log.h"

#include <algorithm>
#include <memory>
#include <string_view>

#include <fenro/mibservice.h>

#include "common/handle.h"
#include "ormel/ormel_api_db_records.h"

namespace fenro {
namespace {

namespace log_db = ormel::log_db;
using MibIo = std::unique_ptr<mib_io, FreeWith<mib_io_free>>;

constexpr std::uint32_t OPENVPN_SERVER = 4;
constexpr int NO_FLAG = -1;

// Fills a text of a record, whose last byte stays zero.
template <std::size_t Size>
void put(char (&field)[Size], const std::string& text) {
  text.copy(field, Size - 1);
}

std::uint64_t seconds_between(std::time_t begin, std::time_t end) {
  return begin > 0 && end > begin ? static_cast<std::uint64_t>(end - begin) : 0;
}

template <typename Record>
bool insert(const char* method, const Record& record) {
  const MibIo io{mib_io_create()};
  constexpr int SIZE = sizeof record;
  return io && mib_io_write(io.get(), reinterpret_cast<const char*>(&record), SIZE) == SIZE &&
         mib_call(log_db::SERVICE, method, io.get(), log_db::TIMEOUT, NO_FLAG) == MIB_SUCCESS;
}

// What rows of both logs have.
template <typename Record>
void fill(Record& record, std::uint32_t type, std::time_t since, ConnectionEvent event, Traffic traffic) {
  const std::time_t now = std::time(nullptr);
  record.vpn_type = static_cast<int>(type);
  record.time = static_cast<std::uint64_t>(now);
  record.action = static_cast<int>(event);
  record.rx_total = traffic.received;
  record.tx_total = traffic.sent;
  if (event == ConnectionEvent::Disconnected) record.uptime = seconds_between(since, now);
}

bool log_server(const OnlineUser& session, ConnectionEvent event, Traffic traffic) {
  const auto record = std::make_unique<db_conn_server_log>();
  fill(*record, session.type, session.since, event, traffic);
  put(record->username, session.user);
  put(record->device_info, session.device);
  put(record->source_ip, session.source);
  put(record->vpn_ip, session.remote);
  return insert(log_db::CONN_SERVER_LOG.insert, *record);
}

// Whether both can't be online at once.
bool same_place(const OnlineUser& one, const OnlineUser& other) {
  if (one.type != other.type) return false;
  return one.type == OPENVPN_SERVER ? one.remote == other.remote : one.interface == other.interface;
}

}  // namespace

bool begin_session(const OnlineUsers& users, const OnlineUser& session) {
  const bool closed = end_sessions(users, [&](const OnlineUser& old) { return same_place(old, session); });
  const bool listed = users.add(session);
  return log_server(session, ConnectionEvent::Connected, {}) && closed && listed;
}

bool end_sessions(const OnlineUsers& users, const OnlineUsers::Chosen& chosen, Traffic traffic) {
  std::vector<OnlineUser> gone;
  bool done = users.remove(chosen, gone);
  for (const OnlineUser& session : gone) done = log_server(session, ConnectionEvent::Disconnected, traffic) && done;
  return done;
}

bool log_refusal(const OnlineUser& login) {
  return log_server(login, ConnectionEvent::Refused, {});
}

bool log_client(const ClientTunnel& tunnel, ConnectionEvent event, Traffic traffic) {
  const auto record = std::make_unique<db_conn_client_log_data>();
  fill(*record, tunnel.type, tunnel.since, event, traffic);
  put(record->username, tunnel.name);
  put(record->vpn_ip, tunnel.local);
  put(record->wan_ip, tunnel.server);
  return insert(log_db::CONN_CLIENT_LOG.insert, *record);
}

}  // namespace fenro
