// fenro-mschap SERVER: pppd's login helper (option "ntlm_auth-helper"). It reads one login from its
// standard input. With the further argument "pap" the request is the user and the password, a line
// each, and the exit status the answer: 0 admits, 1 refuses, 3 leaves the login to pppd. A wrong
// password counts towards the user's block, and each refusal is a row of the connection log.

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <syslog.h>
#include <tuple>
#include <unistd.h>

#include <fenro/auth.h>
#include <fenro/event_log.h>

#include "base/account.h"
#include "base/file.h"
#include "base/grants.h"
#include "base/handle.h"
#include "base/second_factor.h"
#include "base/types.h"
#include "common/connection_log.h"
#include "common/holds.h"
#include "common/login_policy.h"
#include "daemons/mschap/accounts.h"
#include "daemons/mschap/helper.h"
#include "libfenro/user.h"

namespace {

constexpr const char* SECRETS = "/etc/ppp/chap-secrets";
constexpr const char* PAP_SECRETS = "/etc/ppp/pap-secrets";
constexpr const char* ENDED = "the right to use this server has ended";
constexpr std::size_t REQUEST_MAX = 16UL * 1024;

// Up to the line that ends the request: the plugin keeps its end open while it waits for the
// answer.
std::string read_request() {
  std::string request;
  char line[1024];
  while (request.size() < REQUEST_MAX && std::fgets(line, sizeof line, stdin) != nullptr) {
    request += line;
    if (request == ".\n" || request.ends_with("\n.\n")) break;
  }
  return request;
}

// The client's address, which both servers give to pppd, our parent, as its parameter "ipparam" or
// "remotenumber".
std::string client_address() {
  std::ifstream in("/proc/" + std::to_string(getppid()) + "/cmdline", std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(in), {}};
  std::string before;
  for (std::size_t at = 0; at < text.size();) {
    std::string word = text.substr(at, text.find('\0', at) - at);
    at += word.size() + 1;
    in_addr unused{};
    if ((before == "ipparam" || before == "remotenumber") &&
        inet_pton(AF_INET, word.c_str(), &unused) == 1)
      return word;
    before = std::move(word);
  }
  return {};
}

std::uint32_t type_of(std::string_view server) {
  return server == "l2tpd" ? ormel::L2TP_SERVER_TYPE : ormel::PPTP_SERVER_TYPE;
}

void note_refusal(const std::string& user, std::string_view server, const char* reason) {
  fenro::OnlineUser login{};
  login.type = type_of(server);
  login.source = client_address();
  login.since = std::time(nullptr);
  login.user = user;
  std::ignore = fenro::log_refusal(login, reason);  // the login is refused without the row, too
}

// The lines of a deleted account stay in both files; those with their own password need no
// account.
bool is_deleted(const std::string& user, const char* server) {
  std::string secrets;
  std::string secret;
  return fenro::read_file(SECRETS, secrets) == 0 &&
         fenro::mschap::find_secret(secrets, user, server, secret) && secret.starts_with('&') &&
         !fenro::find_user(user.c_str());
}

bool has_hash(const std::string& user, const char* server) {
  fenro::mschap::NtHash unused{};
  return fenro::mschap::account_hash(SECRETS, user, server, unused);
}

// Once for each user and start of the system: anyone can make it happen, and must not fill the
// event log.
void tell_missing_hash(const std::string& user) {
  constexpr const char* FOLDER = "/run/fenro/without-hash";
  constexpr int WARNING = 1;
  const auto account = fenro::find_user(user.c_str());
  if (!account || !fenro::make_private_folder(FOLDER)) return;
  const std::string mark = std::string(FOLDER) + '/' + std::to_string(account->uid);
  const fenro::Fd fd{
      open(mark.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR)};
  if (!fd) return;
  naslog_event event{};
  event.type = WARNING;
  user.copy(event.event_user, sizeof event.event_user - 1);
  client_address().copy(event.event_ip, sizeof event.event_ip - 1);
  const std::string text =
      "[VPN] " + user +
      " may use PPTP or L2TP, but has no password hash: log in at the web interface once, or run "
      "fenro-password.";
  text.copy(event.event_desc, sizeof event.event_desc - 1);
  std::ignore = naslog_event_add(&event);  // the system log has it, too
}

// MS-CHAP proves a password by its hash and has no place for a code. The administrator's demand for
// a second factor takes the rights away; this holds if they are given again.
constexpr const char* CODE_REQUIRED = "a second factor is required, which MS-CHAP cannot carry";

bool must_give_code(const std::string& user) {
  const fenro::SecondFactor factor = fenro::SecondFactors{}.of(user);
  return factor.required || factor.state == fenro::SecondFactor::State::Damaged;
}

std::string decide(const std::string& request, const char* server) {
  const std::string user = fenro::mschap::user_of(request);
  if (user.empty()) return fenro::mschap::REFUSED;
  const fenro::LoginTurn turn{user};
  const char* const barred = !turn ? "other logins of this user take too long"
                             : fenro::has_ended(user, type_of(server)) ? ENDED
                             : fenro::is_held(user)    ? "kept out by an administrator"
                             : fenro::is_blocked(user) ? "blocked after too many wrong passwords"
                             : fenro::is_locked(user.c_str()) ? "the account is locked"
                             : is_deleted(user, server)       ? "the account is gone"
                             : must_give_code(user)           ? CODE_REQUIRED
                                                              : nullptr;
  const bool allowed = !barred;
  std::string answer =
      allowed ? fenro::mschap::judge(request, SECRETS, server) : fenro::mschap::REFUSED;
  const bool good = fenro::mschap::admits(answer);
  const bool hashed = !allowed || has_hash(user, server);
  if (!hashed) {
    // Not counted: even the right password is refused.
    syslog(LOG_DAEMON | LOG_WARNING,
           "fenro-mschap: no password hash of %s: log in at the web interface once, or run "
           "fenro-password",
           user.c_str());
    tell_missing_hash(user);
  } else if (allowed)
    std::ignore =
        fenro::count_login(user, good);  // without the log database every user counts as blocked
  if (!good)
    note_refusal(user, server, barred ? barred : hashed ? "wrong password" : "no password hash");
  return answer;
}

enum PapStatus { Admitted = 0, Refused = 1, NotOurs = 3 };

// Whether the secrets file leaves the user's password to the host.
bool asks_host(const std::string& user, const char* server) {
  std::string secrets;
  std::string secret;
  return fenro::read_file(PAP_SECRETS, secrets) == 0 &&
         fenro::mschap::find_secret(secrets, user, server, secret) && secret == "@login";
}

int decide_pap(const char* server) {
  std::string user, password;
  if (!std::getline(std::cin, user) || !std::getline(std::cin, password)) return Refused;
  if (!asks_host(user, server)) return NotOurs;
  const fenro::LoginTurn turn{user};
  const char* const barred = !turn ? "other logins of this user take too long"
                             : fenro::has_ended(user, type_of(server)) ? ENDED
                             : fenro::is_held(user)    ? "kept out by an administrator"
                             : fenro::is_blocked(user) ? "blocked after too many wrong passwords"
                                                       : nullptr;
  const bool allowed = !barred;
  const int rc = allowed ? Check_NAS_User_Password(user.c_str(), password.c_str()) : -1;
  const bool good = rc == 0;
  // Only what may be a guess counts.
  if (allowed && rc != static_cast<int>(fenro::FactorRefusal::NotSetUp))
    std::ignore =
        fenro::count_login(user, good);  // without the log database every user counts as blocked
  const char* const factor = fenro::reason_of_factor(rc);
  if (!good) note_refusal(user, server, barred ? barred : factor ? factor : "wrong password");
  return good ? Admitted : Refused;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[2], "pap") == 0) return decide_pap(argv[1]);
  if (argc != 2) {
    std::fprintf(stderr, "usage: fenro-mschap SERVER [pap]\n");
    return 2;
  }
  const std::string verdict = decide(read_request(), argv[1]);
  return std::fputs(verdict.c_str(), stdout) >= 0 && std::fflush(stdout) == 0 ? 0 : 1;
}
