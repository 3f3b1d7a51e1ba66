// The second factor of users, for root: who must have one, and the reset of a lost one.
#include "base/second_factor.h"

#include <pwd.h>

#include "base/grants.h"
#include "ormel/base/error.h"
#include "ormelctl/advice.h"
#include "ormelctl/doctor.h"
#include "ormelctl/profile.h"
#include "ormelctl/second_factor.h"

namespace ormelctl {
namespace {

using fenro::SecondFactor;
using fenro::SecondFactors;
using State = SecondFactor::State;

// Protocols whose logins prove a hash of the password and cannot carry a code.
constexpr int WITHOUT_CODES = ormel::PPTP_SERVER_TYPE | ormel::L2TP_SERVER_TYPE;
constexpr const char* MOST_ROWS = "100000";
constexpr const char* SESSION_TOOL = "/usr/lib/fenro/fenro-session";

ormel::Json row_of(const std::string& user, const SecondFactor& factor) {
  return ormel::Json{json_pack("{s:s, s:s, s:b, s:s, s:i}", "user", user.c_str(), "state",
                               std::string(fenro::name_of(factor.state)).c_str(), "required",
                               factor.required ? 1 : 0, "second_factor",
                               second_factor_text(factor).c_str(), "recovery_codes",
                               static_cast<int>(factor.recovery.size()))};
}

// Revokes the rights to protocols without codes.
bool take_rights(const std::string& user, std::string& taken) {
  const Reply stored = call("/ormel/privilege/get", {{"upper", MOST_ROWS}});
  const int mask = static_cast<int>(number_of(stored.data(), user.c_str()));
  if ((mask & WITHOUT_CODES) == 0) return stored.error == 0;
  for (const Protocol& row : protocols()) {
    if ((mask & WITHOUT_CODES & row.server) != 0)
      taken += (taken.empty() ? "" : " and ") + row.name;
  }
  const int left = mask & ~WITHOUT_CODES;
  // A user with devices stays in the store without any right: leaving it would bar them, too.
  const bool gone = left == 0 && fenro::read_grants().of(user).devices == 0;
  return (gone ? call("/ormel/privilege/unset", {{"user", user}})
               : call("/ormel/privilege/set", {{"user", user + '|' + std::to_string(left)}}))
             .error == 0;
}

// Ends the user's sessions of the web interface. One that is good for the set-up alone needs no
// password, since its login has just checked it; none from before may become such a session.
bool end_sessions(const std::string& user) {
  constexpr int SECONDS = 10, NO_SESSION = 1;
  const LimitedRun run = run_limited({SESSION_TOOL, "end-user", user}, "", SECONDS);
  return run.in_time && (run.status == 0 || run.status == NO_SESSION);
}

Result left_open(const std::string& user) {
  return failed(Exit::Failed,
                "done, but the sessions of " + user + " at the web interface could not be ended",
                std::string(SESSION_TOOL) + " end-user " + user);
}

Result unwritable() {
  return failed(Exit::Failed, "totp.conf cannot be written", "is /etc/config writable?");
}

Result show(const std::string& user) {
  const SecondFactor factor = SecondFactors{}.of(user);
  ormel::Json rows{json_array()};
  json_array_append_new(rows.get(), row_of(user, factor).release());
  return done(
      "", std::move(rows),
      {{"user", "USER"}, {"second_factor", "2ND FACTOR"}, {"recovery_codes", "RECOVERY CODES"}});
}

// Revokes rights before it stores the requirement: an interrupted run must not leave a login
// without a code open that seems closed.
Result require(const std::string& user) {
  const ChangeLock lock;
  if (!lock)
    return failed(Exit::TimedOut, "another change is still running", "try again when it has ended");
  std::string taken;
  if (!take_rights(user, taken))
    return failed(Exit::Failed, "the rights could not be stored", "is /etc/config writable?");
  SecondFactor after;
  if (!SecondFactors{}.change(user, [&](SecondFactor& factor) {
        factor.required = true;
        after = factor;
        return factor.state != State::Damaged;
      }))
    return unwritable();
  if (after.state == State::Damaged)
    return failed(Exit::Failed, "the second factor of " + user + " is damaged",
                  "ormelctl user totp " + user + " reset");
  if (after.is_missing() && !end_sessions(user)) return left_open(user);
  Result result = done(user + (after.asks() ? " must go on giving a code at each login"
                                            : " must set up a second factor at the web interface, "
                                              "and has no other login before"),
                       row_of(user, after));
  if (!taken.empty())
    result.note = taken + " cannot carry a code: " + user + " may not use it any more";
  const Reply policy = call("/ormel/privilege/block_show");
  if (policy.error == 0 && !json_is_true(json_object_get(policy.data(), "enable")))
    result.note += std::string(result.note.empty() ? "" : "; ") +
                   "codes can be guessed while the policy on wrong passwords is off: "
                   "ormelctl user policy --enable yes";
  return result;
}

Result make_optional(const std::string& user) {
  SecondFactor after;
  if (!SecondFactors{}.change(user, [&](SecondFactor& factor) {
        factor.required = false;
        after = factor;
        return factor.state != State::Damaged;
      }))
    return unwritable();
  return done(
      user + (after.asks() ? " may switch the second factor off" : " logs in by password alone"),
      row_of(user, after));
}

// A requirement stays: the next login at the web interface sets up a new factor.
Result reset(const std::string& user) {
  SecondFactor after;
  bool any = false;
  if (!SecondFactors{}.change(user, [&](SecondFactor& factor) {
        any = factor.state != State::Off;
        after.required = factor.required;
        factor = after;
        return any;
      }))
    return unwritable();
  if (!any) return failed(Exit::NotFound, user + " has no second factor", "ormelctl user list");
  if (after.is_missing() && !end_sessions(user)) return left_open(user);
  return done(
      user + (after.required ? " logs in at the web interface by password and must set up a "
                               "new second factor there"
                             : " logs in by password alone"),
      row_of(user, after));
}

struct Action {
  std::string_view name;
  Result (*run)(const std::string& user);
};
constexpr Action ACTIONS[] = {
    {"require", require}, {"optional", make_optional}, {"reset", reset}, {"status", show}};

bool is_known(const std::string& user) {
  return getpwnam(user.c_str()) || SecondFactors{}.of(user).state != State::Off;
}

}  // namespace

std::string second_factor_text(const SecondFactor& factor) {
  if (factor.is_missing()) return "required, not set up";
  if (factor.state == State::Off || factor.state == State::Pending) return "";
  return std::string(fenro::name_of(factor.state)) + (factor.required ? ", required" : "");
}

Result user_totp(const Arguments& arguments) {
  const std::string& user = arguments.words[0];
  const std::string verb = arguments.words.size() > 1 ? arguments.words[1] : "status";
  for (const Action& action : ACTIONS) {
    if (action.name != verb) continue;
    if (!is_known(user)) {
      const Reply all = call("/ormel/user/query", {{"upper", MOST_ROWS}});
      return failed(Exit::NotFound, "no user is named " + user,
                    did_you_mean(user, names_in(all.data(), nullptr), "ormelctl user list"));
    }
    return action.run(user);
  }
  return failed(Exit::Usage, verb + " is not known here", "require, optional, reset or status");
}

}  // namespace ormelctl
