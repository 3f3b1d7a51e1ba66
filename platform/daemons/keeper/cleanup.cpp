#include "daemons/keeper/cleanup.h"

#include <chrono>
#include <cstdio>
#include <memory>
#include <set>
#include <thread>
#include <unistd.h>

#include <fenro/conf.h>
#include <fenro/mibservice.h>

#include "base/bus_handle.h"
#include "base/handle.h"
#include "base/log_db_records.h"
#include "common/login_policy.h"
#include "common/online_users.h"
#include "daemons/keeper/child.h"
#include "daemons/keeper/tunnels.h"

namespace fenro::keeper {
namespace {

using Conf = std::unique_ptr<Conf_dir, FreeWith<Conf_Dir_Free>>;
// What the hooks of a tunnel write while it is up.
constexpr const char* LIVE_KEYS[] = {"LocalIP",    "RemoteIP",   "Real Address",
                                     "DNS Server", "Trusted IP", "Trusted Proto"};
constexpr const char* SINCE_KEY = "Time Stamp";
constexpr const char* CONNECTION_TOOL = "/usr/lib/fenro/fenro-connection";
constexpr int DATABASE_ROUNDS = 30;  // of 100 ms
constexpr int NO_FLAG = -1;

bool has_database() {
  const MibIo io{mib_io_create()};
  constexpr std::string_view NOBODY = "x";
  return io && mib_io_write(io.get(), NOBODY.data(), NOBODY.size()) > 0 &&
         mib_call(ormel::log_db::SERVICE, ormel::log_db::PRIVILEGE_USER_BLOCK_CHECK, io.get(), 1,
                  NO_FLAG) == MIB_SUCCESS;
}

void clear_clients(const Processes& processes) {
  const Conf conf{Conf_Dir_Load(VPN_CONF)};
  bool changed = false;
  for (const Tunnel& tunnel : configured_tunnels()) {
    if (tunnel.is_server() || processes.runs(tunnel)) continue;
    const std::string section = tunnel.section();
    for (const char* key : LIVE_KEYS) {
      if (!*Conf_Dir_Get_Str(conf.get(), section.c_str(), key, "")) continue;
      Conf_Dir_Set_Str(conf.get(), section.c_str(), key, "");
      changed = true;
    }
    if (Conf_Dir_Get_Int(conf.get(), section.c_str(), SINCE_KEY, 0) != 0) {
      Conf_Dir_Set_Int(conf.get(), section.c_str(), SINCE_KEY, 0);
      changed = true;
    }
    unlink((std::string{CLIENT_MARKS} + '/' + section).c_str());
  }
  if (changed && Conf_Dir_Wirte_File(conf.get()) != 0)
    std::fprintf(stderr, "fenro-keeperd: what the last tunnels left in %s cannot be cleared\n",
                 VPN_CONF);
}

bool is_dead(const OnlineUser& user, const Processes& processes) {
  for (const Protocol& protocol : protocols()) {
    if (user.type != protocol.sessions) continue;
    return protocol.has_pid ? !processes.has_session(user.number) : !processes.runs({&protocol, 0});
  }
  return false;
}

void end_sessions(const Processes& processes) {
  std::set<std::vector<std::string>> ends;
  for (const OnlineUser& user : OnlineUsers{}.list()) {
    if (is_dead(user, processes))
      ends.insert({CONNECTION_TOOL, "down", std::to_string(user.type), "number",
                   std::to_string(user.number)});
  }
  for (int round = 0; !ends.empty() && round < DATABASE_ROUNDS && !has_database(); ++round)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  for (const std::vector<std::string>& words : ends) std::ignore = Child{words}.wait();
}

}  // namespace

void clear_stale_state() {
  const Processes processes;
  clear_clients(processes);
  end_sessions(processes);
}

}  // namespace fenro::keeper
