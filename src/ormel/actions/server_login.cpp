#include "ormel/actions/server_login.h"

#include <cstdlib>
#include <ctime>
#include <optional>
#include <pwd.h>
#include <sys/stat.h>

#include <fenro/auth.h>

#include "base/grants.h"
#include "base/second_factor.h"
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

// For the row of the connection log, and for the client; none for a wrong password. `status` is the
// exit status.
struct Refusal {
  const char* row;
  const char* client;
  int status = EXIT_FAILURE;
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

// For a client whose password is right. Others learn nothing about the code.
constexpr const char* SET_UP_FIRST = "set up your second factor at the web interface first";

// The refusal for a result of Check_NAS_User_Password.
Refusal refusal_by(int result) {
  const char* const row = fenro::reason_of_factor(result);
  if (!row) return WRONG_PASSWORD;
  const bool proved = result == static_cast<int>(fenro::FactorRefusal::NotSetUp);
  return {row, proved ? SET_UP_FIRST : nullptr, fenro::status_of_factor(result)};
}

// Nothing for a login that is admitted.
std::optional<Refusal> refusal_of(const Login& login, const std::string& user) {
  if (!one_line(login.user) || !one_line(login.password) || !one_line(user)) {
    ORMEL_LOG(ERROR, "%s: user name or password with a line break.", HOOK);
    return MALFORMED;
  }
  UserPrivilege privileges;
  privileges.load();
  if ((privileges.get(user) & OVPN_SERVER_TYPE) == 0) {
    ORMEL_LOG(ERROR, "%s: ORMEL none user. %s", HOOK, user.c_str());
    return NO_RIGHT;
  }
  if (fenro::has_ended(user, OVPN_SERVER_TYPE)) {
    ORMEL_LOG(ERROR, "%s: the right of %s has ended.", HOOK, user.c_str());
    return ENDED;
  }
  if (check_privilege_user_block(user.c_str()) != 0) {
    ORMEL_LOG(ERROR, "%s: check_privilege_user_block. %s", HOOK, user.c_str());
    return BLOCKED;
  }
  if (const int rc = Check_NAS_User_Password(user.c_str(), login.password.c_str()); rc != 0) {
    ORMEL_LOG(ERROR, "%s: user: %s, password failed.", HOOK, user.c_str());
    const Refusal refusal = refusal_by(rc);
    // Only what may be a guess counts. The login is refused anyway.
    if (!refusal.client) std::ignore = add_privilege_user_block(user.c_str());
    return refusal;
  }
  std::ignore = delete_privilege_user_block(
      user.c_str());  // failures that stay counted run out by themselves
  return {};
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
  const auto refusal = refusal_of(login, user);
  if (!refusal) return EXIT_SUCCESS;
  tell_client(login, user, *refusal);
  log_refusal(login, user, *refusal);
  return refusal->status;
}

}  // namespace ormel::ovpn
