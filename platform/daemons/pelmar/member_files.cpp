#include "daemons/pelmar/member_files.h"

#include <unistd.h>

#include "base/pelmar_files.h"
#include "libfenro/ini_file.h"

namespace fenro::pelmar {

namespace {

constexpr const char* JOINED = "already_join_pelmar";

std::string unquoted(const std::string& value) {
  const std::size_t first = value.find_first_not_of('"');
  return first == std::string::npos ? ""
                                    : value.substr(first, value.find_last_not_of('"') - first + 1);
}

}  // namespace

bool switched_on(const char* file) {
  return access(file, F_OK) == 0;
}

std::string join_setting(const char* key) {
  return ini::read_value(SETTINGS, JOIN_SECTION, key).value_or("");
}

bool is_member_of(const std::string& organization) {
  return ini::read_value(ACCOUNT, ACCOUNT_SECTION, "tamid_token_status").value_or("") == JOINED &&
         join_setting("PELMAR_ORG_ID") == organization;
}

Device this_device() {
  const auto value = [](const char* key) {
    return unquoted(ini::read_value(AGENT, "", key).value_or(""));
  };
  return {value("DEV_ID"), value("DEV_TOKEN")};
}

}  // namespace fenro::pelmar
