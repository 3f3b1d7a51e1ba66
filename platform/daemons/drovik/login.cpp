#include "daemons/drovik/login.h"

#include <memory>

#include <fenro/auth.h>
#include <fenro/mibservice.h>

#include "common/file.h"
#include "common/handle.h"
#include "daemons/drovik/log.h"
#include "daemons/drovik/privilege.h"
#include "ormel/ormel_api_db_records.h"

namespace fenro::drovik {
namespace {

namespace log_db = ormel::log_db;
using MibIo = std::unique_ptr<mib_io, FreeWith<mib_io_free>>;

constexpr const char* PRIVILEGES = "/etc/config/vpn_user_ex.conf";
constexpr const char* BLOCKED = "1";
constexpr int NO_FLAG = -1;

// One question about a user; false when the log database is away.
bool ask(const char* method, const std::string& user, std::string& reply) {
  const MibIo io{mib_io_create()};
  if (!io || mib_io_write(io.get(), user.data(), user.size()) < 0) return false;
  if (mib_call(log_db::SERVICE, method, io.get(), log_db::TIMEOUT, NO_FLAG) != MIB_SUCCESS) return false;
  const char* text = mib_io_read(io.get(), nullptr);
  reply = text ? text : "";
  return true;
}

// Whoever cannot be looked up counts as blocked, or a stopped database would open the door to guessing.
bool is_blocked(const std::string& user) {
  std::string reply;
  return !ask(log_db::PRIVILEGE_USER_BLOCK_CHECK, user, reply) || reply == BLOCKED;
}

}  // namespace

bool may_enter(const Login& login) {
  Text store;
  if (read_file(PRIVILEGES, store) != 0 || !may_use_drovik(store.view(), login.user)) {
    log_line(LOG_NOTICE, "%s has no right to use this server", login.user.c_str());
    return false;
  }
  if (is_blocked(login.user)) {
    log_line(LOG_NOTICE, "%s is blocked", login.user.c_str());
    return false;
  }
  const bool good = Check_NAS_User_Password(login.user.c_str(), login.password.c_str()) == 0;
  std::string unused;
  const auto& table = log_db::PRIVILEGE_USER_BLOCK;
  if (!ask(good ? table.remove : table.insert, login.user, unused))
    log_line(LOG_WARNING, "the log database does not count the logins of %s", login.user.c_str());
  if (!good) log_line(LOG_NOTICE, "wrong password for %s", login.user.c_str());
  return good;
}

}  // namespace fenro::drovik
