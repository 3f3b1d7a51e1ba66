#include "daemons/keeper/host_watch.h"

#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sys/statvfs.h>

#include <fenro/mibservice.h>

#include "base/bus_handle.h"
#include "base/handle.h"
#include "base/log_db_records.h"
#include "common/login_policy.h"

namespace fenro::keeper {
namespace {

namespace log_db = ormel::log_db;
struct BusDaemon {
  const char* name;
  const char* socket;
};
constexpr BusDaemon DAEMONS[] = {
    {"ormeld", "@/var/run/ormeld.sock"},
    {"fenro-networkd", "@fenro-bus/NetworkService"},
    {"fenro-jsond", "@fenro-bus/vpncaas"},
    {"fenro-rated", "@fenro-bus/RateServer"},
    {"pelmar-agentd", "@fenro-bus/pelmar_expressd"},
};
constexpr std::chrono::seconds GRACE{15};  // a service manager restarts it within some seconds
constexpr std::chrono::seconds SLOW_PERIOD{30};
constexpr const char* FOLDERS[] = {"/etc/config", "/var/log", "/var/lib/ormel"};
constexpr unsigned long FULL_PERCENT = 5;
constexpr unsigned long RELIEF_PERCENT = 8;
constexpr const char* DATABASE = "/var/lib/ormel/log.db";
constexpr const char* JOURNAL = "/var/lib/ormel/log.db-wal";
constexpr std::int64_t LATEST = 8;        // failures that are looked at each time
constexpr std::int64_t BY_TIMESTAMP = 3;  // number of the column
constexpr int NO_FLAG = -1;
constexpr std::size_t ANSWER_HEAD = sizeof(db_privilege_user_block_query);

std::set<std::string> listening_sockets() {
  constexpr std::string_view LISTENS = "00010000";
  std::set<std::string> all;
  std::ifstream table{"/proc/net/unix"};
  for (std::string number, count, protocol, flags, type, state, inode, line;
       table >> number >> count >> protocol >> flags;) {
    std::getline(table, line);
    if (flags == LISTENS) all.insert(line.substr(line.rfind(' ') + 1));
  }
  return all;
}

bool changed(const char* path, timespec& last) {
  struct stat now {};
  if (stat(path, &now) != 0) return false;
  if (now.st_mtim.tv_sec < last.tv_sec ||
      (now.st_mtim.tv_sec == last.tv_sec && now.st_mtim.tv_nsec <= last.tv_nsec))
    return false;
  last = now.st_mtim;
  return true;
}

}  // namespace

void HostWatch::tick(Time now) {
  look_at_daemons(now);
  look_at_users();
  if (now - looked_ < SLOW_PERIOD) return;
  looked_ = now;
  look_at_disks();
}

void HostWatch::look_at_daemons(Time now) {
  const std::set<std::string> sockets = listening_sockets();
  for (const BusDaemon& row : DAEMONS) {
    Daemon& daemon = daemons_[row.name];
    if (sockets.contains(row.socket)) {
      daemon.seen = true;
      daemon.gone = {};
      if (std::exchange(daemon.dead, false))
        report_({"daemon", Level::Information, row.name,
                 std::string{"The daemon "} + row.name + " answers again"});
      continue;
    }
    if (!daemon.seen || daemon.dead) continue;
    if (daemon.gone == Time{}) daemon.gone = now;
    if (now - daemon.gone < GRACE) continue;
    daemon.dead = true;
    report_({"daemon", Level::Error, row.name,
             std::string{"The daemon "} + row.name +
                 " has ended and was not restarted; start it again (systemctl restart " + row.name +
                 ')'});
  }
}

void HostWatch::look_at_disks() {
  for (const char* folder : FOLDERS) {
    struct statvfs disk {};
    if (statvfs(folder, &disk) != 0 || disk.f_blocks == 0) continue;
    const unsigned long free = 100 * disk.f_bavail / disk.f_blocks;
    bool& full = full_[folder];
    if (!full && free < FULL_PERCENT) {
      full = true;
      report_({"disk", Level::Error, folder,
               std::string{"The disk of "} + folder + " is nearly full: " + std::to_string(free) +
                   " % are free"});
    } else if (full && free >= RELIEF_PERCENT) {
      full = false;
      report_({"disk", Level::Information, folder,
               std::string{"The disk of "} + folder + " has space again"});
    }
  }
}

// The log database is asked only when it has changed.
void HostWatch::look_at_users() {
  const bool database = changed(DATABASE, database_);
  const bool journal = changed(JOURNAL, database_);
  if (!database && !journal) return;
  const auto request = std::make_unique<db_query_cond>();
  *request = {};
  request->count = LATEST;
  request->order_by = BY_TIMESTAMP;
  request->order_style = 1;
  const MibIo io{mib_io_create()};
  if (!io ||
      mib_io_write(io.get(), reinterpret_cast<const char*>(request.get()), sizeof *request) < 0)
    return;
  if (mib_call(log_db::SERVICE, log_db::PRIVILEGE_USER_BLOCK.query, io.get(), 1, NO_FLAG) !=
      MIB_SUCCESS)
    return;
  std::size_t length = 0;
  const char* const bytes = mib_io_read(io.get(), &length);
  auto row = std::make_unique<db_privilege_user_block_data>();
  for (std::size_t at = ANSWER_HEAD; at + sizeof *row <= length; at += sizeof *row) {
    std::memcpy(row.get(), bytes + at, sizeof *row);
    row->username[DB_TEXT_SIZE - 1] = '\0';
    const auto when = static_cast<std::time_t>(row->timestamp);
    const auto known = locked_.find(row->username);
    if (known != locked_.end() && known->second == when) continue;
    if (!is_blocked(row->username)) {
      locked_.erase(row->username);
      continue;
    }
    const bool news = known == locked_.end();
    locked_[row->username] = when;
    if (!news || when < started_) continue;
    report_({"locked", Level::Warning, row->username,
             std::string{"User "} + row->username + " is locked for wrong passwords"});
  }
}

}  // namespace fenro::keeper
