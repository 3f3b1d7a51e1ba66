#include "daemons/drovik/login.h"

#include <fenro/auth.h>

#include "base/file.h"
#include "base/grants.h"
#include "base/second_factor.h"
#include "base/types.h"
#include "common/holds.h"
#include "common/login_policy.h"
#include "daemons/drovik/log.h"
#include "daemons/drovik/privilege.h"

namespace fenro::drovik {
namespace {

constexpr const char* PRIVILEGES = "/etc/config/vpn_user_ex.conf";

}  // namespace

std::string refusal_of(const Login& login) {
  std::string store;
  if (read_file(PRIVILEGES, store) != 0 || !may_use_drovik(store, login.user))
    return "no right to use this server";
  if (has_ended(login.user, ormel::DROVIK_SERVER_TYPE))
    return "the right to use this server has ended";
  if (is_held(login.user)) return "kept out by an administrator";
  const LoginTurn turn{login.user};
  if (!turn) return "other logins of this user take too long";
  if (is_blocked(login.user)) return "blocked after too many wrong passwords";
  const int rc = Check_NAS_User_Password(login.user.c_str(), login.password.c_str());
  // Only what may be a guess counts.
  const bool counts = rc != static_cast<int>(FactorRefusal::NotSetUp);
  if (counts && !count_login(login.user, rc == 0))
    log_line(LOG_WARNING, "the log database does not count the logins of %s", login.user.c_str());
  const char* const factor = reason_of_factor(rc);
  return rc == 0 ? "" : factor ? factor : "wrong password";
}

}  // namespace fenro::drovik
