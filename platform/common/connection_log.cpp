#include "common/connection_log.h"

#include <algorithm>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

#include <fenro/event_log.h>
#include <fenro/mibservice.h>

#include "base/bus_handle.h"
#include "base/file.h"
#include "base/handle.h"
#include "base/log_db_records.h"
#include "base/tunnel.h"
#include "libfenro/user.h"

namespace fenro {
namespace {

namespace log_db = ormel::log_db;

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
void fill(Record& record, std::uint32_t type, std::time_t since, ConnectionEvent event,
          Traffic traffic) {
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
  const auto server = static_cast<ormel::TYPE>(one.type);
  return ormel::sessions_of(server) == ormel::Sessions::OPENVPN ? one.remote == other.remote
                                                                : one.interface == other.interface;
}

// Whether the last event of this kind is long enough ago.
bool may_tell(const std::string& kind) {
  constexpr const char* FOLDER = "/run/fenro/refusals";
  constexpr std::time_t PAUSE = 60;  // seconds
  if (!make_private_folder(FOLDER)) return false;
  const std::string mark = std::string(FOLDER) + '/' + kind;
  const Fd fd{open(mark.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                   S_IRUSR | S_IWUSR)};
  struct stat info {};
  if (!fd || flock(fd.get(), LOCK_EX | LOCK_NB) != 0 || fstat(fd.get(), &info) != 0) return false;
  if (info.st_size > 0 && std::time(nullptr) - info.st_mtime < PAUSE) return false;
  return pwrite(fd.get(), "x", 1, 0) == 1;
}

// A name that somebody has sent, on one line.
std::string printable(std::string text) {
  constexpr unsigned char SPACE = 0x20, DELETE = 0x7f;
  for (char& c : text) {
    if (const auto byte = static_cast<unsigned char>(c); byte < SPACE || byte == DELETE) c = '?';
  }
  return text;
}

}  // namespace

bool begin_session(const OnlineUsers& users, const OnlineUser& session) {
  const bool closed =
      end_sessions(users, [&](const OnlineUser& old) { return same_place(old, session); });
  const bool listed = users.add(session);
  return log_server(session, ConnectionEvent::Connected, {}) && closed && listed;
}

bool end_sessions(const OnlineUsers& users, const OnlineUsers::Chosen& chosen, Traffic traffic) {
  std::vector<OnlineUser> gone;
  bool done = users.remove(chosen, gone);
  for (const OnlineUser& session : gone)
    done = log_server(session, ConnectionEvent::Disconnected, traffic) && done;
  return done;
}

bool log_refusal(const OnlineUser& login, const std::string& reason) {
  tell_refusal(login, reason);
  OnlineUser row = login;
  row.device = reason;
  return log_server(row, ConnectionEvent::Refused, {});
}

void tell_refusal(const OnlineUser& login, const std::string& reason) {
  constexpr int WARNING = 1;
  const auto account = find_user(login.user.c_str());
  if (!may_tell((account ? std::to_string(account->uid) : "unknown") + '-' +
                std::to_string(std::hash<std::string>{}(reason)))) {
    return;
  }
  naslog_event event{};
  event.type = WARNING;
  put(event.event_user, printable(login.user));
  put(event.event_ip, login.source);
  put(event.event_desc,
      "[VPN] Login of " + printable(login.user) + " from " + login.source + " refused: " + reason);
  std::ignore = naslog_event_add(&event);  // the row of the login is there without it
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
