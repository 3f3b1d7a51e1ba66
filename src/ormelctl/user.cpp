// Users, their rights, and the policy on wrong passwords.
#include <algorithm>
#include <pwd.h>

#include "ormel/base/error.h"
#include "ormelctl/advice.h"
#include "ormelctl/profile.h"

namespace ormelctl {
namespace {

constexpr const char* MOST_ROWS = "100000";
constexpr int RIGHTS = ormel::PPTP_SERVER_TYPE | ormel::L2TP_SERVER_TYPE | ormel::OVPN_SERVER_TYPE |
                       ormel::DROVIK_SERVER_TYPE;
const Columns USER_COLUMNS = {{"user", "USER"}, {"rights_text", "RIGHTS"}, {"blocked", "BLOCKED"}};

std::string rights_text(int mask) {
  std::string text;
  for (const Protocol& row : protocols()) {
    if ((mask & row.server & RIGHTS) != 0) text += (text.empty() ? "" : " ") + row.name;
  }
  return text;
}

bool contains(const json_t* array, const std::string& name) {
  size_t at = 0;
  const json_t* value = nullptr;
  json_array_foreach(array, at, value) {
    if (name == json_string_value(value)) return true;
  }
  return false;
}

// The bits of the protocols named from the second operand on; -1, with the failure in `problem`,
// for a wrong one.
int rights_of(const Arguments& arguments, Result& problem) {
  int mask = 0;
  for (size_t i = 1; i < arguments.words.size(); ++i) {
    const Protocol* protocol = find_protocol(arguments.words[i]);
    if (!protocol || (protocol->server & RIGHTS) == 0) {
      problem = failed(Exit::Usage, arguments.words[i] + " has no rights of users",
                       "one of " + rights_text(RIGHTS));
      return -1;
    }
    mask |= protocol->server;
  }
  return mask;
}

int stored_rights(const std::string& user) {
  const Reply reply = call("/ormel/privilege/get", {{"upper", MOST_ROWS}});
  return static_cast<int>(number_of(reply.data(), user.c_str()));
}

ormel::Json user_row(const std::string& user, int mask, bool blocked) {
  return ormel::Json{json_pack("{s:s, s:i, s:s, s:b}", "user", user.c_str(), "rights", mask,
                               "rights_text", rights_text(mask).c_str(), "blocked",
                               blocked ? 1 : 0)};
}

Result set_rights(const std::string& user, int mask, const std::string& message) {
  const Reply reply =
      mask == 0 ? call("/ormel/privilege/unset", {{"user", user}})
                : call("/ormel/privilege/set", {{"user", user + '|' + std::to_string(mask)}});
  if (reply.error != 0) return failed(reply.error, reply.reason);
  if (stored_rights(user) != mask)
    return failed(Exit::Failed, "the rights could not be stored", "is /etc/config writable?");
  return done(message, user_row(user, mask, false));
}

}  // namespace

Result user_list(const Arguments& arguments) {
  const std::string filter = arguments.value("filter");
  const Reply users = call("/ormel/user/query", {{"upper", MOST_ROWS}, {"filter", filter}});
  const Reply rights = call("/ormel/privilege/get", {{"upper", MOST_ROWS}, {"filter", filter}});
  const Reply blocks = call("/ormel/privilege/block_show");
  for (const Reply* reply : {&users, &rights, &blocks}) {
    if (reply->error != 0) return failed(reply->error, reply->reason);
  }
  std::vector<std::string> names;
  size_t at = 0;
  const json_t* value = nullptr;
  json_array_foreach(users.data(), at, value) names.emplace_back(json_string_value(value));
  const char* name = nullptr;
  json_t* mask = nullptr;
  json_object_foreach(rights.data(), name, mask) names.emplace_back(name);
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  const json_t* blocked = json_object_get(blocks.data(), "user");
  ormel::Json rows{json_array()};
  for (const std::string& user : names) {
    json_array_append_new(rows.get(),
                          user_row(user, static_cast<int>(number_of(rights.data(), user.c_str())),
                                   contains(blocked, user))
                              .release());
  }
  return done("", std::move(rows), USER_COLUMNS);
}

Result user_grant(const Arguments& arguments) {
  const std::string& user = arguments.words[0];
  if (!getpwnam(user.c_str())) {
    const Reply all = call("/ormel/user/query", {{"upper", MOST_ROWS}});
    return failed(
        Exit::NotFound, "no user is named " + user,
        did_you_mean(user, names_in(all.data(), nullptr), "adduser " + user + " makes one"));
  }
  Result problem;
  const int mask = rights_of(arguments, problem);
  if (mask < 0) return problem;
  const ChangeLock lock;
  if (!lock) return locked_out();
  const int all = (stored_rights(user) & RIGHTS) | mask;
  return set_rights(user, all, user + " may use " + rights_text(all));
}

Result user_revoke(const Arguments& arguments) {
  const std::string& user = arguments.words[0];
  Result problem;
  const int mask = rights_of(arguments, problem);
  if (mask < 0) return problem;
  const ChangeLock lock;
  if (!lock) return locked_out();
  const int before = stored_rights(user) & RIGHTS;
  if (before == 0) {
    std::vector<std::string> known;
    const Reply rights = call("/ormel/privilege/get", {{"upper", MOST_ROWS}});
    const char* name = nullptr;
    json_t* value = nullptr;
    json_object_foreach(rights.data(), name, value) known.emplace_back(name);
    return failed(Exit::NotFound, user + " has no rights",
                  did_you_mean(user, known, "ormelctl user list"));
  }
  const int left = mask == 0 ? 0 : before & ~mask;
  return set_rights(
      user, left,
      user + (left == 0 ? " has no rights now" : " may still use " + rights_text(left)));
}

Result user_unlock(const Arguments& arguments) {
  const std::string& user = arguments.words[0];
  const Reply blocks = call("/ormel/privilege/block_show");
  if (blocks.error != 0) return failed(blocks.error, blocks.reason);
  if (!contains(json_object_get(blocks.data(), "user"), user)) {
    return failed(Exit::NotFound, user + " is not blocked",
                  did_you_mean(user, names_in(json_object_get(blocks.data(), "user"), nullptr),
                               "ormelctl user list"));
  }
  const Reply reply = call("/ormel/privilege/remove_block_user", {{"user", user}});
  return reply.error != 0 ? failed(reply.error, reply.reason) : done(user + " may log in again");
}

Result user_policy(const Arguments& arguments) {
  const Reply stored = call("/ormel/privilege/block_show");
  if (stored.error != 0) return failed(stored.error, stored.reason);
  if (arguments.options.empty()) {
    ormel::Json data{json_incref(stored.data())};
    return done("", std::move(data));
  }
  if (geteuid() != 0)
    return failed(Exit::NotRoot, "only root may change the policy",
                  "sudo ormelctl user policy --limit 5");
  const std::string enable = arguments.value(
      "enable", json_is_true(json_object_get(stored.data(), "enable")) ? "yes" : "no");
  const Form form{
      {"enable", enable == "yes"  ? "true"
                 : enable == "no" ? "false"
                                  : enable},
      {"limit", arguments.value("limit", std::to_string(number_of(stored.data(), "limit")))},
      {"time", arguments.value("time", std::to_string(number_of(stored.data(), "time")))}};
  const Reply reply = call("/ormel/privilege/block", form);
  if (reply.error == ormel::ERR_VALUE) {
    return failed(Exit::Usage, reply.reason + " has a wrong value",
                  "--enable yes|no, --limit 2 to 10, --time 30, 60, 720 or 1440 (minutes)");
  }
  return reply.error != 0 ? failed(reply.error, reply.reason)
                          : done("the policy is stored, and all counters are reset");
}

}  // namespace ormelctl
