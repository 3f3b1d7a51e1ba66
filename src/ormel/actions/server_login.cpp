#include "ormel/actions/server_login.h"

#include <cstdlib>
#include <ctime>
#include <pwd.h>
#include <sys/stat.h>

#include <fenro/auth.h>

#include "base/grants.h"
#include "ormel/actions/log_db_mobile.h"
#include "ormel/actions/privilege.h"
#include "ormel/base/error.h"
#include "ormel/base/file.h"
#include "ormel/base/lines.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/drivers/openvpn/openvpn.h"

namespace ormel::ovpn {

namespace {

constexpr const char* HOOK = "sauth";  // in log lines
constexpr size_t DEVICE_ID_LENGTH = sizeof(ormel_mobile_gen_uuid_data_get::ormel_uuid);
constexpr int ALL_ROWS = -1;
constexpr int REFUSED = 1;  // kind of the event in the connection log

struct Login {
  std::string user;
  std::string password;
  std::string from;  // address of the client
  // Where the daemon takes words for the client from; empty where it takes none. Only an account
  // that exists gets any, and the answer does not tell which of user and password is wrong.
  std::string reason_file;
};

// For the row of the connection log, and for the client; none for a wrong password.
struct Refusal {
  const char* row;
  const char* client;
};
constexpr Refusal MALFORMED{"user name or password with a line break", nullptr};
constexpr Refusal NO_RIGHT{"no right to use this server", "no right to use this server"};
constexpr Refusal ENDED{"the right to use this server has ended",
                        "the right to use this server has ended"};
constexpr Refusal BLOCKED{"blocked after too many wrong passwords",
                          "TEMP[backoff 60]:too many wrong passwords, try again later"};
constexpr Refusal WRONG_PASSWORD{"wrong password", nullptr};

// Takes a value out of the environment, so that no program started from here inherits it.
std::string take_environment(const char* name) {
  const char* value = std::getenv(name);
  std::string taken = value ? value : "";
  unsetenv(name);
  return taken;
}

// A mobile client may log in by its device: the user is the owner of the one device of that
// identifier.
std::string effective_user(const std::string& user) {
  db_query_cond cond{};
  cond.count = ALL_ROWS;
  fill_field(cond.field, "dev_uuid");
  fill_field(cond.value, user.substr(0, DEVICE_ID_LENGTH));
  const auto devices = log_db::ask(list_device_info, cond);
  if (devices.rows().size() != 1) return user;
  return field_text(devices.rows().front().user_id);
}

// Null for a login that is admitted.
const Refusal* refusal_of(const Login& login, const std::string& user) {
  if (!one_line(login.user) || !one_line(login.password) || !one_line(user)) {
    ORMEL_LOG(ERROR, "%s: user name or password with a line break.", HOOK);
    return &MALFORMED;
  }
  UserPrivilege privileges;
  privileges.load();
  if ((privileges.get(user) & OVPN_SERVER_TYPE) == 0) {
    ORMEL_LOG(ERROR, "%s: ORMEL none user. %s", HOOK, user.c_str());
    return &NO_RIGHT;
  }
  if (fenro::has_ended(user, OVPN_SERVER_TYPE)) {
    ORMEL_LOG(ERROR, "%s: the right of %s has ended.", HOOK, user.c_str());
    return &ENDED;
  }
  if (check_privilege_user_block(user.c_str()) != 0) {
    ORMEL_LOG(ERROR, "%s: check_privilege_user_block. %s", HOOK, user.c_str());
    return &BLOCKED;
  }
  if (Check_NAS_User_Password(user.c_str(), login.password.c_str()) != 0) {
    ORMEL_LOG(ERROR, "%s: user: %s, password failed.", HOOK, user.c_str());
    std::ignore = add_privilege_user_block(user.c_str());  // the login is refused anyway
    return &WRONG_PASSWORD;
  }
  std::ignore = delete_privilege_user_block(
      user.c_str());  // failures that stay counted run out by themselves
  return nullptr;
}

void tell_client(const Login& login, const std::string& user, const Refusal& refusal) {
  if (login.reason_file.empty() || !refusal.client || !getpwnam(user.c_str())) return;
  std::ignore = system::write_file(refusal.client, login.reason_file.c_str(),
                                   S_IRUSR | S_IWUSR);  // a courtesy
}

void log_refusal(const Login& login, const std::string& user, const Refusal& refusal) {
  db_conn_server_log record{};
  record.vpn_type = OVPN_SERVER_TYPE;
  record.time = static_cast<uint64_t>(std::time(nullptr));
  fill_field(record.source_ip, login.from);
  record.action = REFUSED;
  fill_field(record.username, user);
  if (!login.reason_file.empty()) fill_field(record.device_info, refusal.row);
  std::ignore = add_conn_server_log(&record);  // without the log the login is refused as well
}

}  // namespace

int sauth(int, char**) {
  const Login login{take_environment("username"), take_environment("password"),
                    take_environment("untrusted_ip"), take_environment("auth_failed_reason_file")};
  const std::string user = effective_user(login.user);
  const Refusal* refusal = refusal_of(login, user);
  if (!refusal) return EXIT_SUCCESS;
  tell_client(login, user, *refusal);
  log_refusal(login, user, *refusal);
  return EXIT_FAILURE;
}

}  // namespace ormel::ovpn
