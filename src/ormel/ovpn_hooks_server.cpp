// `ormel.sauth`: whether the OpenVPN server may let a client in.
#include <cstdlib>
#include <ctime>

#include <fenro/auth.h>

#include "ormel/error.h"
#include "ormel/ormel_api_mobile.h"
#include "ormel/ovpn.h"
#include "ormel/privilege.h"
#include "ormel/system_log.h"
#include "ormel/text.h"

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
};

// Takes a value out of the environment, so that no program started from here inherits it.
std::string take_environment(const char* name) {
  const char* value = std::getenv(name);
  std::string taken = value ? value : "";
  unsetenv(name);
  return taken;
}

// A mobile client may log in by its device: the user is the owner of the one device of that identifier.
std::string effective_user(const std::string& user) {
  db_query_cond cond{};
  cond.count = ALL_ROWS;
  fill_field(cond.field, "dev_uuid");
  fill_field(cond.value, user.substr(0, DEVICE_ID_LENGTH));
  const auto devices = log_db::ask(list_device_info, cond);
  if (devices.rows().size() != 1) return user;
  return field_text(devices.rows().front().user_id);
}

bool admits(const Login& login, const std::string& user) {
  if (!one_line(login.user) || !one_line(login.password) || !one_line(user)) {
    ORMEL_LOG(ERROR, "%s: user name or password with a line break.", HOOK);
    return false;
  }
  UserPrivilege privileges;
  privileges.load();
  if ((privileges.get(user) & OVPN_SERVER_TYPE) == 0) {
    ORMEL_LOG(ERROR, "%s: ORMEL none user. %s", HOOK, user.c_str());
    return false;
  }
  if (check_privilege_user_block(user.c_str()) != 0) {
    ORMEL_LOG(ERROR, "%s: check_privilege_user_block. %s", HOOK, user.c_str());
    return false;
  }
  if (Check_NAS_User_Password(user.c_str(), login.password.c_str()) != 0) {
    ORMEL_LOG(ERROR, "%s: user: %s, password failed.", HOOK, user.c_str());
    std::ignore = add_privilege_user_block(user.c_str());  // the login is refused all the same
    return false;
  }
  std::ignore = delete_privilege_user_block(user.c_str());  // failures that stay counted run out by themselves
  return true;
}

void log_refusal(const Login& login, const std::string& user) {
  db_conn_server_log record{};
  record.vpn_type = OVPN_SERVER_TYPE;
  record.time = static_cast<uint64_t>(std::time(nullptr));
  fill_field(record.source_ip, login.from);
  record.action = REFUSED;
  fill_field(record.username, user);
  std::ignore = add_conn_server_log(&record);  // without the log the login is refused as well
}

}  // namespace

int sauth(int, char**) {
  const Login login{take_environment("username"), take_environment("password"), take_environment("untrusted_ip")};
  const std::string user = effective_user(login.user);
  if (admits(login, user)) return EXIT_SUCCESS;
  log_refusal(login, user);
  return EXIT_FAILURE;
}

}  // namespace ormel::ovpn
