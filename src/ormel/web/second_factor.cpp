// The second factor of the session's user: set up with an authenticator app, and switched off with
// one of its codes. Both need the password: with a session alone, somebody who has found one open
// could shut its user out. No variable names another user.
#include "base/second_factor.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <iterator>
#include <thread>
#include <unistd.h>

#include <fenro/mibservice.h>

#include "base/login_throttle.h"
#include "ormel/actions/log_db.h"
#include "ormel/base/handle.h"
#include "ormel/base/log.h"
#include "ormel/base/text.h"
#include "ormel/host/event_log.h"
#include "ormel/host/process.h"
#include "ormel/web/access.h"
#include "ormel/web/routes.h"

namespace ormel::cgi::my {

using fenro::FactorRefusal;
using fenro::SecondFactor;
using fenro::SecondFactors;

namespace {

constexpr const char* SESSION_TOOL = "/usr/lib/fenro/fenro-session";
constexpr const char* PASSWORD_TOOL = "/usr/sbin/fenro-password";
constexpr int WARNING = 1;  // of an event
constexpr auto WRONG_CODE_PAUSE = std::chrono::seconds(1);

const Outcome UNWRITABLE{ERR_SAVE_FILE,
                         "totp.conf cannot be written: check the space on /etc/config"};
const Outcome NO_CRYPTO{ERR_NOT_SUPPORT, "codes cannot be computed here: libcrypto is missing"};
const Outcome IS_ON{ERR_NOT_SUPPORT, "a second factor is on: switch it off first"};
const Outcome IS_OFF{ERR_NOT_SUPPORT, "no second factor is on"};
const Outcome DAMAGED{
    ERR_NOT_SUPPORT,
    "what is stored of the second factor is damaged: an administrator can reset it"};
const Outcome NOT_BEGUN{ERR_NOT_SUPPORT, "the set-up has not begun, or took too long: begin again"};
const Outcome BLOCKED{ERR_ACCESS, "blocked after too many wrong codes: log in again with a code"};
const Outcome NO_PASSWORD{ERR_MISS_OPTION, "password"};
const Outcome WRONG_PASSWORD{ERR_SESSION_PASS, "the password is wrong"};
const Outcome UNCOUNTED{ERR_GENERAL, "/run/fenro/login cannot be written"};
const Outcome WRONG_CODE{ERR_VALUE, "this code is wrong, or was used before"};

// Stores the user's second factor as `edit` leaves it: on success, and after a wrong code, which
// may have been counted.
Outcome change(const std::string& user, const std::function<Outcome(SecondFactor& factor)>& edit) {
  Outcome outcome;
  const bool written = SecondFactors{}.change(user, [&](SecondFactor& factor) {
    outcome = factor.state == SecondFactor::State::Damaged ? DAMAGED : edit(factor);
    return outcome.code == NO_ERROR || outcome.code == ERR_VALUE;
  });
  return written ? outcome : UNWRITABLE;
}

std::string host_name() {
  char name[256] = {};
  return gethostname(name, sizeof name - 1) == 0 && name[0] ? name : "VPN";
}

// Whether a program of the platform succeeds that gets a secret, which is no argument.
bool succeeds(const std::vector<std::string>& command, std::string secret) {
  secret += '\n';
  const MibIo in{mib_io_create()}, out{mib_io_create()}, errors{mib_io_create()};
  const bool done =
      in &&
      mib_io_write(in.get(), secret.data(), secret.size()) == static_cast<int>(secret.size()) &&
      mib_io_execv(in.get(), out.get(), errors.get(), system::Argv(command).get()) == 0;
  explicit_bzero(secret.data(), secret.size());
  return done;
}

const fenro::LoginThrottle& throttle() {
  static const fenro::LoginThrottle of_logins{fenro::WEB_LOGINS};
  return of_logins;
}

// Clears what was counted, once nothing is left to be guessed: after the password alone, a session
// could be used to try any number of codes at the login.
void forgive(const std::string& user) {
  throttle().succeed(user, client_address(), fenro::LoginThrottle::clock());
}

// Wrong passwords count as at the web login, so that a session is no way around its limits.
Outcome check_password(const Request& request, const std::string& user) {
  if (!request.filled("password")) return NO_PASSWORD;
  const auto admission = throttle().admit(user, client_address(), fenro::LoginThrottle::clock());
  if (!admission) return UNCOUNTED;
  if (admission->retry_after > 0)
    return {ERR_ACCESS, "too many wrong passwords: try again in " +
                            std::to_string(admission->retry_after) + " s"};
  std::this_thread::sleep_for(admission->delay);
  if (!succeeds({PASSWORD_TOOL, "--check", user}, request.value("password"))) {
    system::add_log(
        "[ORMEL Service] Wrong password of " + user + " for a change of the second factor.",
        WARNING);
    return WRONG_PASSWORD;
  }
  return {};
}

// Ends sessions that a password alone has begun, once it no longer suffices: one may belong to
// somebody else who knows it. Ends also those that could set up a required factor without it.
void end_other_sessions(const Request& request) {
  if (!succeeds({SESSION_TOOL, "end-others", "-"}, request.value("sid")))
    ORMEL_LOG(ERROR, "the user's other sessions could not be ended");
}

// An unfinished set-up begins again. It has no effect before it is confirmed, so it leaves no row
// in the audit trail, which users could fill otherwise.
Outcome begin(const Request& request, JsonValue& reply) {
  request.changes_nothing();
  const std::string user = request.name();
  const SecondFactor now = SecondFactors{}.of(user);
  // A session that is good for the set-up alone comes from a login by this very password.
  if (!now.asks() && !now.is_missing()) {
    if (Outcome refused = check_password(request, user); refused.code != NO_ERROR) return refused;
    forgive(user);
  }
  std::string secret;
  Outcome outcome = change(user, [&](SecondFactor& factor) -> Outcome {
    if (factor.asks()) return IS_ON;
    if (!fenro::totp::is_available()) return NO_CRYPTO;
    const std::string bytes = fenro::totp::random_bytes(fenro::totp::SECRET_BYTES);
    if (bytes.empty()) return {ERR_GENERAL};
    factor.state = SecondFactor::State::Pending;
    factor.secret = secret = fenro::totp::to_base32(bytes);
    factor.begun = std::time(nullptr);
    factor.used = 0;
    factor.recovery.clear();
    return {};
  });
  if (outcome.code != NO_ERROR) return outcome;
  JsonValue& data = reply["data"];
  data["secret"] = secret;
  data["uri"] = fenro::totp::uri(host_name(), user, secret);
  data["seconds"] = fenro::PENDING_SECONDS;
  return {};
}

bool has_begun(const SecondFactor& factor, std::int64_t now) {
  return factor.state == SecondFactor::State::Pending && factor.begun <= now &&
         now - factor.begun <= fenro::PENDING_SECONDS;
}

std::string typed_code(const Request& request) {
  std::string code = request.value("code");
  std::erase(code, ' ');
  return code;
}

// The code that confirms the set-up counts as used: it cannot log in as well.
Outcome confirm(const Request& request, JsonValue& reply) {
  std::vector<std::string> recovery;
  Outcome outcome = change(request.name(), [&](SecondFactor& factor) -> Outcome {
    const std::int64_t now = std::time(nullptr);
    if (!has_begun(factor, now)) return NOT_BEGUN;
    const FactorRefusal refusal = fenro::take_code(factor, typed_code(request), now);
    // The user has just seen the secret, so there is nothing to hide.
    if (refusal != FactorRefusal::None)
      return {ERR_VALUE, fenro::reason_of_factor(static_cast<int>(refusal))};
    recovery = fenro::renew_recovery(factor);
    if (recovery.empty()) return {ERR_GENERAL};
    factor.state = SecondFactor::State::On;
    return {};
  });
  if (outcome.code != NO_ERROR) {
    request.changes_nothing();
    return outcome;
  }
  end_other_sessions(request);
  JsonValue& codes = reply["data"]["recovery"].make_array();
  for (const std::string& code : recovery) codes << code;
  return {};
}

// Wrong codes count like wrong passwords, even while that policy is off: a session must not be
// enough to guess one. The store's lock keeps attempts from running in parallel.
Outcome take_code_and_remove(const Request& request, const std::string& user) {
  return change(user, [&](SecondFactor& factor) -> Outcome {
    if (factor.state != SecondFactor::State::On) return IS_OFF;
    if (factor.misses >= fenro::MOST_MISSES || check_privilege_user_block(user.c_str()) != 0)
      return BLOCKED;
    if (fenro::take_code(factor, typed_code(request), std::time(nullptr)) != FactorRefusal::None) {
      std::ignore = add_privilege_user_block(user.c_str());  // the code is refused anyway
      ++factor.misses;
      return WRONG_CODE;
    }
    const bool required = factor.required;
    factor = {};
    factor.required = required;
    return {};
  });
}

Outcome switch_off(const Request& request, JsonValue&) {
  const std::string user = request.name();
  const bool is_on = SecondFactors{}.of(user).state == SecondFactor::State::On;
  Outcome outcome = is_on ? check_password(request, user) : Outcome{};
  if (outcome.code == NO_ERROR) outcome = take_code_and_remove(request, user);
  if (outcome.code == NO_ERROR) {
    forgive(user);
    if (SecondFactors{}.of(user).is_missing()) end_other_sessions(request);
  }
  constexpr int UNTRIED[] = {ERR_ACCESS, ERR_NOT_SUPPORT, ERR_MISS_OPTION};
  if (std::ranges::find(UNTRIED, outcome.code) != std::end(UNTRIED)) request.changes_nothing();
  if (outcome.code == ERR_VALUE) std::this_thread::sleep_for(WRONG_CODE_PAUSE);
  return outcome;
}

constexpr Route ROWS[] = {
    {"/ormel/my/totp_begin", ANY_SESSION, CHANGES, json<begin>},
    {"/ormel/my/totp_confirm", ANY_SESSION, CHANGES, json<confirm>},
    {"/ormel/my/totp_off", ANY_SESSION, CHANGES, json<switch_off>},
};

}  // namespace

const Routes SECOND_FACTOR{ROWS};

}  // namespace ormel::cgi::my
