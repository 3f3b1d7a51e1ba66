// Users, their rights and until when, and the policy on wrong passwords.
#include <algorithm>
#include <map>
#include <pwd.h>

#include "base/grants.h"
#include "base/lines.h"
#include "ormel/actions/access.h"
#include "ormel/actions/audit.h"
#include "ormel/actions/privilege.h"
#include "ormel/base/error.h"
#include "ormel/host/log_file.h"
#include "ormel/web/grant.h"
#include "ormel/web/hold.h"
#include "ormelctl/advice.h"
#include "ormelctl/profile.h"
#include "ormelctl/second_factor.h"

namespace ormelctl {
namespace {

constexpr const char* MOST_ROWS = "100000";
constexpr int RIGHTS = ormel::PPTP_SERVER_TYPE | ormel::L2TP_SERVER_TYPE | ormel::OVPN_SERVER_TYPE |
                       ormel::DROVIK_SERVER_TYPE;
const Columns USER_COLUMNS = {{"user", "USER"},
                              {"rights_text", "RIGHTS"},
                              {"until_text", "UNTIL"},
                              {"second_factor", "2ND FACTOR"},
                              {"last_login_text", "LAST LOGIN"},
                              {"failed_text", "FAILED"},
                              {"state", "STATE"}};

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

// The names of the second operand on, which commas may separate, too.
std::vector<std::string> protocol_words(const Arguments& arguments) {
  std::vector<std::string> names;
  for (size_t i = 1; i < arguments.words.size(); ++i) {
    std::string_view rest = arguments.words[i];
    for (size_t end = 0; end != std::string_view::npos; rest.remove_prefix(end + 1)) {
      end = rest.find(',');
      names.emplace_back(rest.substr(0, end));
      if (end == std::string_view::npos) break;
    }
  }
  return names;
}

// The bits of the protocols named; -1, with the failure in `problem`, for a wrong one.
int rights_of(const Arguments& arguments, Result& problem) {
  int mask = 0;
  for (const std::string& name : protocol_words(arguments)) {
    const Protocol* protocol = find_protocol(name);
    if (!protocol || (protocol->server & RIGHTS) == 0) {
      problem =
          failed(Exit::Usage, name + " has no rights of users",
                 "one of " + rights_text(RIGHTS) + "; WireGuard devices are given by --devices 2");
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

// What the list shows of one user.
struct Row {
  std::string user;
  int mask = 0;
  fenro::Grant grant{};
  std::optional<ormel::access::Failures> failures{};
  long last_login = 0;
  long held_until = 0;
};

// The end of all that a user has, or of each where they differ.
std::string until_text(const Row& row) {
  std::map<int64_t, std::string> names;
  for (const Protocol& protocol : protocols()) {
    const bool devices = protocol.server == ormel::WIREGUARD_SERVER_TYPE && row.grant.devices > 0;
    if ((row.mask & protocol.server & RIGHTS) == 0 && !devices) continue;
    std::string& text = names[row.grant.end_of(static_cast<uint32_t>(protocol.server))];
    text += (text.empty() ? "" : " ") + protocol.name;
  }
  if (names.size() == 1) return names.begin()->first == 0 ? "" : moment_text(names.begin()->first);
  std::string all;
  for (const auto& [end, text] : names) {
    if (end != 0) all += (all.empty() ? "" : ", ") + text + ": " + moment_text(end);
  }
  return all;
}

std::string state_text(const Row& row) {
  if (row.held_until != 0) return "kept out until " + moment_text(row.held_until);
  const long blocked = row.failures ? row.failures->until : 0;
  return blocked == 0 ? "" : "blocked until " + moment_text(blocked);
}

std::string what_text(const Row& row) {
  std::string rights = rights_text(row.mask);
  if (row.grant.devices == 0) return rights;
  return rights + (rights.empty() ? "" : " ") + "wireguard(" + std::to_string(row.grant.devices) +
         ')';
}

ormel::Json user_row(const Row& row) {
  ormel::Json until{json_object()};
  for (const Protocol& protocol : protocols()) {
    const int64_t end = row.grant.end_of(static_cast<uint32_t>(protocol.server));
    if (end != 0) json_object_set_new(until.get(), protocol.name.c_str(), json_integer(end));
  }
  const int failed_count = row.failures ? row.failures->count : 0;
  const bool blocked = row.failures && row.failures->until != 0;
  const std::string factor = second_factor_text(fenro::SecondFactors{}.of(row.user));
  return ormel::Json{json_pack(
      "{s:s, s:i, s:s, s:s, s:b, s:i, s:O, s:s, s:I, s:s, s:i, s:s, s:s}", "user", row.user.c_str(),
      "rights", row.mask, "rights_text", what_text(row).c_str(), "second_factor", factor.c_str(),
      "blocked", blocked ? 1 : 0, "devices", row.grant.devices, "until", until.get(), "until_text",
      until_text(row).c_str(), "last_login", json_int_t{row.last_login}, "last_login_text",
      row.last_login == 0 ? "" : moment_text(row.last_login).c_str(), "failed", failed_count,
      "failed_text", failed_count == 0 ? "" : std::to_string(failed_count).c_str(), "state",
      state_text(row).c_str())};
}

// When a user was let in last; 0 where the log has no row of it.
long last_login_of(const std::string& user) {
  constexpr size_t ROWS = 20;
  const auto logins = ormel::access::latest_logins(user, ROWS);
  if (!logins) return 0;
  const auto good = std::ranges::find(*logins, false, &ormel::access::Login::refused);
  return good == logins->end() ? 0 : good->at;
}

// Until when users are kept out.
std::map<std::string, long> held_users() {
  std::map<std::string, long> held;
  const ormel::Json holds = ormel::cgi::hold::has_list() ? ormel::cgi::hold::rows("list") : nullptr;
  size_t at = 0;
  const json_t* hold = nullptr;
  json_array_foreach(holds.get(), at, hold) {
    if (text_of(hold, "kind") == "user") held[text_of(hold, "who")] = number_of(hold, "until");
  }
  return held;
}

// What the options of a grant ask for.
struct Wish {
  long until = 0;  // 0 for no end
  int devices = -1;
};

Result read_wish(const Arguments& arguments, Wish& wish) {
  const long now = std::time(nullptr);
  if (arguments.has("until")) {
    const std::string text = arguments.value("until");
    const bool is_time = !text.empty() && std::isalpha(static_cast<unsigned char>(text.back()));
    const long seconds = is_time ? arguments.seconds("until", 0) : -1;
    wish.until = seconds > 0 ? now + seconds : moment_of(text);
    if (wish.until < 0)
      return failed(Exit::Usage,
                    "--until takes a day such as 2030-12-31, with a time such as "
                    "2030-12-31T18:00, or a time from now such as 8h or 30d");
    if (wish.until <= now) return failed(Exit::Usage, "--until " + text + " is over");
  }
  if (!arguments.has("devices")) return {};
  const std::string text = arguments.value("devices");
  if (!fenro::parse_number(text, wish.devices) || wish.devices < 0 ||
      wish.devices > fenro::MOST_DEVICES)
    return failed(Exit::Usage, "--devices takes 0 to " + std::to_string(fenro::MOST_DEVICES));
  return {};
}

// Stores the end before the right, so that no right is ever without its end.
Result store_wish(const std::string& user, int mask, const Wish& wish) {
  const bool plain = wish.until == 0 && wish.devices < 0;
  if (plain && !fenro::has_grants()) return {};
  Form form{{"user", user}, {"until", std::to_string(wish.until)}};
  if (wish.devices >= 0) {
    mask |= ormel::WIREGUARD_SERVER_TYPE;
    form.emplace_back("devices", std::to_string(wish.devices));
  }
  form.emplace_back("type", std::to_string(mask));
  const Reply reply = call("/ormel/grant/set", form);
  return reply.error != 0 ? failed(reply.error, reply.reason) : Result{};
}

Row row_of(const std::string& user, int mask) {
  return {.user = user, .mask = mask, .grant = fenro::read_grants().of(user)};
}

Result set_rights(const std::string& user, int mask, const std::string& message) {
  const Reply reply =
      mask == 0 ? call("/ormel/privilege/unset", {{"user", user}})
                : call("/ormel/privilege/set", {{"user", user + '|' + std::to_string(mask)}});
  if (reply.error != 0) return failed(reply.error, reply.reason);
  if (stored_rights(user) != mask)
    return failed(Exit::Failed, "the rights could not be stored", "is /etc/config writable?");
  return done(message, user_row(row_of(user, mask)));
}

std::string granted_text(const std::string& user, int all, const Wish& wish) {
  std::string text = all == 0 ? user : user + " may use " + rights_text(all);
  if (wish.devices >= 0)
    text += std::string(all == 0 ? " may have " : ", and have ") + std::to_string(wish.devices) +
            (wish.devices == 1 ? " WireGuard device" : " WireGuard devices");
  return text + (wish.until == 0 ? "" : "; what was granted now ends " + moment_text(wish.until));
}

}  // namespace

Result user_list(const Arguments& arguments) {
  const std::string filter = arguments.value("filter");
  const Reply users = call("/ormel/user/query", {{"upper", MOST_ROWS}, {"filter", filter}});
  const Reply rights = call("/ormel/privilege/get", {{"upper", MOST_ROWS}, {"filter", filter}});
  for (const Reply* reply : {&users, &rights}) {
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
  const auto failures = ormel::access::all_failures();
  const std::map<std::string, long> held = held_users();
  const fenro::GrantBook book = fenro::read_grants();
  ormel::Json rows{json_array()};
  for (const std::string& user : names) {
    Row row{.user = user,
            .mask = static_cast<int>(number_of(rights.data(), user.c_str())),
            .grant = book.of(user)};
    if (failures)
      row.failures =
          failures->contains(user) ? failures->at(user) : decltype(row.failures)::value_type{};
    if (row.mask != 0) row.last_login = last_login_of(user);
    if (const auto found = held.find(user); found != held.end()) row.held_until = found->second;
    json_array_append_new(rows.get(), user_row(row).release());
  }
  Result result = done("", std::move(rows), USER_COLUMNS);
  if (!failures)
    result.note = "the log database does not answer: LAST LOGIN and FAILED are not known";
  if (book.damaged)
    result.note = book.is_copy ? "grants.json is damaged: UNTIL is that of its last good copy"
                               : "grants.json is damaged: UNTIL may lack dates";
  return result;
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
  Wish wish;
  if (problem = read_wish(arguments, wish); problem.exit != Exit::Done) return problem;
  if (mask == 0 && wish.devices < 0)
    return failed(Exit::Usage, "missing: a protocol, or --devices",
                  "ormelctl user grant bob openvpn --until 2030-12-31");
  const ChangeLock lock;
  if (!lock) return locked_out();
  if (problem = store_wish(user, mask, wish); problem.exit != Exit::Done) return problem;
  const int all = (stored_rights(user) & RIGHTS) | mask;
  if (mask == 0) return done(granted_text(user, all, wish), user_row(row_of(user, all)));
  Result result = set_rights(user, all, granted_text(user, all, wish));
  const bool closed = (mask & (ormel::PPTP_SERVER_TYPE | ormel::L2TP_SERVER_TYPE)) != 0 &&
                      fenro::SecondFactors{}.of(user).required;
  if (closed && result.exit == Exit::Done)
    result.note = "a second factor is required of " + user +
                  ", for which pptp and l2tp have no place: logins there are refused";
  return result;
}

Result user_revoke(const Arguments& arguments) {
  const std::string& user = arguments.words[0];
  Result problem;
  const int mask = rights_of(arguments, problem);
  if (mask < 0) return problem;
  const ChangeLock lock;
  if (!lock) return locked_out();
  const int before = stored_rights(user) & RIGHTS;
  const bool has_devices = fenro::read_grants().of(user).devices > 0;
  if (before == 0 && (mask != 0 || !has_devices)) {
    std::vector<std::string> known;
    const Reply rights = call("/ormel/privilege/get", {{"upper", MOST_ROWS}});
    const char* name = nullptr;
    json_t* value = nullptr;
    json_object_foreach(rights.data(), name, value) known.emplace_back(name);
    return failed(Exit::NotFound, user + " has no rights",
                  did_you_mean(user, known, "ormelctl user list"));
  }
  const int left = mask == 0 ? 0 : before & ~mask;
  if (left == 0 && mask != 0 && has_devices) {
    // Keeps the user in the store, since revoking everything would bar the devices, too.
    const Reply reply = call("/ormel/privilege/set", {{"user", user + "|0"}});
    return reply.error != 0 ? failed(reply.error, reply.reason)
                            : done(user + " has no rights now but to WireGuard devices");
  }
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

namespace {

ormel::audit::Recorder recorder_of_end(const std::string& user) {
  if (!ormel::audit::is_kept()) return {};
  return {{"", "keeper", ""}, "user revoke", user};
}

// Revokes a user's expired rights. Returns whether nothing is left to do.
bool end_grant(const std::string& user, int ended) {
  const int before = stored_rights(user);
  if (const int left = before & ~ended; left != before) {
    ormel::audit::Recorder recorder = recorder_of_end(user);
    // The rights of a deleted account cannot be set.
    const Reply reply = getpwnam(user.c_str()) ? call("/ormel/privilege/set",
                                                      {{"user", user + '|' + std::to_string(left)}})
                                               : call("/ormel/privilege/unset", {{"user", user}});
    const bool revoked = reply.error == 0 && (stored_rights(user) & ended) == 0;
    std::ignore = recorder.finish(revoked ? ormel::NO_ERROR : ormel::ERR_SAVE_FILE);
    // Another run may still write rights that it read earlier, so the next run forgets the end.
    return false;
  }
  return ormel::cgi::grant::forget_ended(user, before);
}

}  // namespace

int end_grants() {
  ormel::system::set_log_file_wrapper();
  const ChangeLock lock;
  if (!lock) return static_cast<int>(Exit::TimedOut);
  bool done = true;
  for (const fenro::Grant& grant : fenro::read_grants().grants) {
    const auto ended = static_cast<int>(grant.ended(std::time(nullptr)));
    if (ended != 0) done = end_grant(grant.user, ended) && done;
  }
  return static_cast<int>(done ? Exit::Done : Exit::Failed);
}

}  // namespace ormelctl
