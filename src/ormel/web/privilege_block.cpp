// The policy on failed logins, and the users that it blocks.
//
// The policy is /etc/config/vpn_block.conf, which the daemon that serves "vpncaas" reads and
// replaces for us:
//   {"global": {"enable": true, "limit": 5, "time": 30}}
// `limit` failed logins block a user for `time` minutes. The log database counts them, and it alone
// decides whether a login is tried at all; a key that is missing has the value above.
#include <ctime>
#include <iterator>
#include <string>
#include <string_view>

#include "ormel/actions/log_db.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/host/bus.h"
#include "ormel/host/notification.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::privilege {

namespace {

constexpr const char* SERVICE = "vpncaas";
constexpr const char* POLICY = "/etc/config/vpn_block.conf";
constexpr const char* DEFAULT_POLICY = R"({"global": {"enable": true, "limit": 5, "time": 30}})";
constexpr double MINUTE = 60;

// One value that the form may give: what is stored for it, and what users read.
struct Choice {
  std::string_view text;
  int value;
  const char* words;
};

constexpr Choice ENABLE[] = {
    {"1", 1, "Enable"}, {"true", 1, "Enable"}, {"0", 0, "Disable"}, {"false", 0, "Disable"}};
constexpr Choice LIMIT[] = {{"2", 2, "2"}, {"3", 3, "3"}, {"4", 4, "4"},
                            {"5", 5, "5"}, {"6", 6, "6"}, {"7", 7, "7"},
                            {"8", 8, "8"}, {"9", 9, "9"}, {"10", 10, "10"}};
constexpr Choice TIME[] = {{"30", 30, "30 minutes"},
                           {"60", 60, "1 hour"},
                           {"720", 720, "12 hours"},
                           {"1440", 1440, "24 hours"}};

template <size_t Count>
const Choice* choose(const Request& request, const char* name, const Choice (&choices)[Count]) {
  for (const Choice& choice : choices) {
    if (choice.text == request.value(name)) return &choice;
  }
  return nullptr;
}

Json call(const char* method, const json_t* request) {
  const CString text{json_dumps(request, JSON_COMPACT)};
  return text ? system::easy_mib_call(SERVICE, method, text.get()) : nullptr;
}

Json write_policy(json_t* policy) {
  return call("write_json", Json{json_pack("{s:s, s:O}", "path", POLICY, "data", policy)}.get());
}

Json default_policy() {
  return Json{json_loads(DEFAULT_POLICY, 0, nullptr)};
}

// The stored policy; null when there is none. A file that cannot be read counts as missing.
Json read_policy() {
  const Json answer = call("read_json", Json{json_pack("{s:s}", "path", POLICY)}.get());
  json_t* policy = json_object_get(answer.get(), "data");
  return Json{json_is_object(json_object_get(policy, "global")) ? json_incref(policy) : nullptr};
}

// The rules in force, missing ones by their defaults.
Json rules_in_force() {
  Json policy = read_policy();
  if (!policy) {
    std::ignore =
        clean_privilege_user_block();  // what was counted was counted under another policy
    policy = default_policy();
    std::ignore = write_policy(policy.get());  // shown anyway
  }
  Json rules{json_incref(json_object_get(policy.get(), "global"))};
  json_object_update_missing(rules.get(), json_object_get(default_policy().get(), "global"));
  return rules;
}

// Adds the users that are blocked now, and lets those go whose time is over.
void list_blocked(const json_t* rules, JsonValue& users) {
  const json_int_t limit = json_integer_value(json_object_get(rules, "limit"));
  const double seconds =
      static_cast<double>(json_integer_value(json_object_get(rules, "time"))) * MINUTE;
  const std::time_t now = std::time(nullptr);
  db_query_cond all{};
  all.count = -1;
  const auto blocks = log_db::ask(list_privilege_user_block, all);
  for (const db_privilege_user_block_data& row : blocks.rows()) {
    if (row.limit < limit) continue;
    const std::string user = field_text(row.username);
    if (std::difftime(now, static_cast<std::time_t>(row.timestamp)) < seconds) {
      users << system::valid_utf8(user);  // anyone who tried to log in chose the bytes
    } else {
      std::ignore = delete_privilege_user_block(user.c_str());  // the next list will try again
    }
  }
}

int show_blocks(const Request&, JsonValue& reply) {
  const Json rules = rules_in_force();
  JsonValue& data = reply["data"];
  for (const char* key : {"enable", "limit", "time"})
    data[key] = json_incref(json_object_get(rules.get(), key));
  JsonValue& users = data["user"].make_array();
  if (json_is_true(json_object_get(rules.get(), "enable"))) list_blocked(rules.get(), users);
  return NO_ERROR;
}

Outcome change_policy(const Request& request, JsonValue&) {
  const Choice* enable = choose(request, "enable", ENABLE);
  if (!enable) return {ERR_VALUE, "enable"};
  const Choice* limit = choose(request, "limit", LIMIT);
  if (!limit) return {ERR_VALUE, "limit"};
  const Choice* time = choose(request, "time", TIME);
  if (!time) return {ERR_VALUE, "time"};

  std::ignore = clean_privilege_user_block();  // the policy counts for more than what was counted
                                               // under the old one
  const Json policy{json_pack("{s:{s:b, s:i, s:i}}", "global", "enable", enable->value, "limit",
                              limit->value, "time", time->value)};
  if (!write_policy(policy.get())) {  // an answer with an error counts as missing
    ORMEL_LOG(ERROR, ": mib failed. mibsh vpncaas.read_json path=%s", POLICY);
    return {ERR_MIB_API_RET_ERROR};
  }
  nclog::notify_send(&nc_message("C001", "0019"), limit->words, time->words, enable->words,
                     nullptr);
  return {};
}

Outcome lift_block(const Request& request, JsonValue&) {
  if (!request.filled("user")) return {ERR_VALUE, "user"};
  if (delete_privilege_user_block(request.value("user")) != MIB_SUCCESS) {
    ORMEL_LOG(ERROR, ": mib failed. delete_privilege_user_block failed.");
    return {ERR_MIB_API_RET_ERROR};
  }
  return {};
}

constexpr Route ROWS[] = {
    {"/ormel/privilege/block_show", ADMINISTRATOR, READS, json<show_blocks>},
    {"/ormel/privilege/block", ADMINISTRATOR, CHANGES, json<change_policy>},
    {"/ormel/privilege/remove_block_user", ADMINISTRATOR, CHANGES, json<lift_block>},
};

}  // namespace

const Routes BLOCKS{ROWS};

}  // namespace ormel::cgi::privilege
