// fenro-login.cgi: the web login of a host. Takes user and password by POST over TLS, asks PAM,
// begins a session with fenro-session and answers {"error":0,"sid":"...","admin":true}; or ends a
// session. A field "code" holds the code of a second factor, which may also follow the password.
// Every other answer of the login is
// {"error":38,"reason":"session pass"}, and for a wrong password it comes after the same time as
// for an unknown user.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

#include <fenro/auth.h>
#include <fenro/event_log.h>
#include <fenro/mibservice.h>

#include "base/argv.h"
#include "base/body.h"
#include "base/bus_handle.h"
#include "base/handle.h"
#include "base/login_throttle.h"
#include "base/second_factor.h"
#include "daemons/mschap/password_table.h"
#include "libfenro/password.h"
#include "libfenro/user.h"
#include "session/login_form.h"
#include "session/login_page.h"

namespace {

using fenro::LoginForm;
using fenro::LoginThrottle;
using Clock = std::chrono::steady_clock;
using fenro::MibIo;

constexpr const char* SESSION_TOOL = "/usr/lib/fenro/fenro-session";
constexpr const char* ADMINISTRATORS = "administrators";
constexpr std::string_view FORM_TYPE = "application/x-www-form-urlencoded";
constexpr mode_t PRIVATE_UMASK = 077;

// PAM itself waits one to three seconds, by chance, before it says no. The rest up to a whole step
// hides what is left of the difference between a hash that was computed and one that was not.
constexpr std::chrono::milliseconds FAILURE_STEP{3500};

constexpr const char* OK = "200 OK";
constexpr const char* BAD_REQUEST = "400 Bad Request";
constexpr const char* FORBIDDEN = "403 Forbidden";
constexpr const char* NOT_FOUND = "404 Not Found";
constexpr const char* NOT_ALLOWED = "405 Method Not Allowed";
constexpr const char* TOO_LARGE = "413 Content Too Large";
constexpr const char* WRONG_TYPE = "415 Unsupported Media Type";
constexpr const char* TOO_MANY = "429 Too Many Requests";
constexpr const char* FAILED = "500 Internal Server Error";

constexpr const char* JSON = "application/json";
constexpr const char* LOGIN_REFUSED = R"({"error":38,"reason":"session pass"})";
constexpr const char* LOGOUT_REFUSED = R"({"error":39,"reason":"session invalid"})";

enum EventType { INFORMATION = 0, WARNING = 1 };

std::string_view variable(const char* name) {
  const char* const value = std::getenv(name);
  return value ? value : "";
}

void answer(const char* status, std::string_view body, const char* type = JSON,
            const std::string& headers = {}) {
  std::printf("Status: %s\r\nContent-Type: %s; charset=utf-8\r\nCache-Control: no-store\r\n%s\r\n",
              status, type, headers.c_str());
  std::fwrite(body.data(), 1, body.size(), stdout);
}

template <std::size_t Size>
void set_text(char (&field)[Size], std::string_view text) {
  field[text.copy(field, Size - 1)] = '\0';
}

// Only the name of an account gets into the log: what else is typed there may well be a password.
void log_event(EventType type, const std::string& user, const char* text) {
  naslog_event event{};
  event.type = type;
  set_text(event.event_user, fenro::find_user(user.c_str()) ? user : "unknown");
  set_text(event.event_ip, variable("REMOTE_ADDR"));
  set_text(event.event_desc, text);
  std::ignore = naslog_event_add(&event);  // nobody is kept out, or let in, because of the log
}

// Runs fenro-session. What it printed without the line's end; nothing when it refused.
std::optional<std::string> session_tool(std::vector<std::string> words,
                                        const std::string& input = {}) {
  const MibIo in{mib_io_create()}, out{mib_io_create()}, err{mib_io_create()};
  for (const char* name : {"QUERY_STRING", "REQUEST_URI", "HTTP_AUTHORIZATION"})
    unsetenv(name);  // they may hold a session id, or a token
  words.insert(words.begin(), SESSION_TOOL);
  if (!in || mib_io_write(in.get(), input.data(), input.size()) != static_cast<int>(input.size()))
    return {};
  if (mib_io_execv(in.get(), out.get(), err.get(), fenro::argv_of(words).data()) != 0) return {};
  std::size_t length = 0;
  const char* const text = mib_io_read(out.get(), &length);
  const std::string_view printed{text, length};
  return std::string{printed.substr(0, printed.find('\n'))};
}

// Reads the form of a POST, and takes its query string for none. Null, or the status to refuse it
// with.
const char* read_form(LoginForm& form) {
  const std::string_view type = variable("CONTENT_TYPE");
  const bool right = type.size() >= FORM_TYPE.size() &&
                     strncasecmp(type.data(), FORM_TYPE.data(), FORM_TYPE.size()) == 0;
  if (!right) return WRONG_TYPE;
  switch (form.read(STDIN_FILENO, variable("CONTENT_LENGTH"))) {
    case LoginForm::Result::Ok: return nullptr;
    case LoginForm::Result::TooLarge: return TOO_LARGE;
    case LoginForm::Result::Malformed: break;
  }
  return BAD_REQUEST;
}

void wait_for_whole_step(Clock::time_point start) {
  const auto steps = (Clock::now() - start) / FAILURE_STEP + 1;
  std::this_thread::sleep_until(start + steps * FAILURE_STEP);
}

// Returns 0 or what check_login says. A name that no session can hold is not shown to PAM's
// modules.
int check(const std::string& user, const char* typed) {
  const bool plain = std::none_of(user.begin(), user.end(),
                                  [](char c) { return (c >= 0 && c < ' ') || c == '\x7f'; });
  if (!plain || user.size() >= sizeof(_session::user)) return -1;
  std::string password;
  const int rc = fenro::check_login(user.c_str(), typed, fenro::LoginKind::Web, &password);
  // PPTP and L2TP logins need a hash of the password, which the host does not keep.
  if (rc == 0 && !fenro::mschap::store_password(user, password))
    log_event(WARNING, user, "[Web] The password hash for PPTP and L2TP could not be stored.");
  explicit_bzero(password.data(), password.size());
  return rc;
}

void log_failure(const std::string& user, int rc) {
  const char* const factor = fenro::reason_of_factor(rc);
  const std::string why = factor ? factor : "wrong user name or password";
  log_event(WARNING, user, ("[Web] Login failed: " + why + '.').c_str());
}

// The password, followed by the code of a second factor, which has its own field in the form. Users
// without one leave it empty.
std::string typed_in(const LoginForm& form) {
  const std::string_view password = form.value("password"), code = form.value("code");
  std::string typed;
  typed.reserve(password.size() + code.size());  // or growing would leave a copy behind
  typed += password;
  for (const char c : code) {
    if (c != ' ') typed += c;
  }
  return typed;
}

void refuse_for_now(const LoginThrottle::Admission& admission, const std::string& user) {
  // Once a window: a flood of refusals must not push everything else out of the log.
  if (admission.first_refusal)
    log_event(WARNING, user, "[Web] Login refused for a while: too many failed logins.");
  answer(TOO_MANY, LOGIN_REFUSED, JSON,
         "Retry-After: " + std::to_string(admission.retry_after) + "\r\n");
}

void begin_session(const std::string& user) {
  const auto sid = session_tool(
      {"create", user, std::string{variable("REMOTE_ADDR")}, std::string{variable("SERVER_ADDR")}});
  if (!sid) {
    log_event(WARNING, user, "[Web] Login failed: no session could be made.");
    return answer(FAILED, LOGIN_REFUSED);
  }
  log_event(INFORMATION, user, "[Web] User logged in.");
  const bool admin = User_Belongs_To_Group(user.c_str(), ADMINISTRATORS) != 0;
  // "enrol" says that the session may only set up the required second factor.
  const bool enrol = fenro::SecondFactors{}.of(user).is_missing();
  answer(OK, R"({"error":0,"sid":")" + *sid + R"(","admin":)" + (admin ? "true" : "false") +
                 (enrol ? R"(,"enrol":true})" : "}"));
}

void log_in() {
  LoginForm form;
  if (const char* refused = read_form(form)) return answer(refused, LOGIN_REFUSED);
  const std::string user = form.value("user");
  if (user.empty() || !*form.value("password")) return answer(BAD_REQUEST, LOGIN_REFUSED);

  const LoginThrottle throttle{fenro::WEB_LOGINS};
  const auto admission = throttle.admit(user, variable("REMOTE_ADDR"), LoginThrottle::clock());
  if (!admission) return answer(FAILED, LOGIN_REFUSED);
  if (admission->retry_after > 0) return refuse_for_now(*admission, user);
  std::this_thread::sleep_for(admission->delay);

  const auto start = Clock::now();
  std::string typed = typed_in(form);
  form.wipe();
  const int rc = check(user, typed.c_str());
  explicit_bzero(typed.data(), typed.size());
  if (rc != 0) {
    log_failure(user, rc);
    wait_for_whole_step(start);
    return answer(OK, LOGIN_REFUSED);
  }
  throttle.succeed(user, variable("REMOTE_ADDR"), LoginThrottle::clock());
  begin_session(user);
}

void end_session(const std::string& sid) {
  _session session{};
  if (auth_get_session(sid.c_str(), 0, &session) != 0 || !session_tool({"end", "-"}, sid + "\n"))
    return answer(OK, LOGOUT_REFUSED);
  log_event(INFORMATION, session.user, "[Web] User logged out.");
  answer(OK, R"({"error":0})");
}

void log_out() {
  LoginForm form;
  if (const char* refused = read_form(form)) return answer(refused, LOGOUT_REFUSED);
  end_session(form.value("sid"));
}

void log_out_by_link() {
  LoginForm form;
  if (form.take(variable("QUERY_STRING")) != LoginForm::Result::Ok)
    return answer(BAD_REQUEST, LOGOUT_REFUSED);
  end_session(form.value("sid"));
}

void show_page() {
  answer(OK, fenro::LOGIN_PAGE, "text/html",
         "Content-Security-Policy: " + std::string{fenro::PAGE_POLICY} + "\r\n");
}

struct Route {
  std::string_view url, method;
  void (*run)();
};
constexpr Route ROUTES[] = {
    {"/fenro/login", "GET", show_page},
    {"/fenro/login", "POST", log_in},
    {"/fenro/logout", "GET", log_out_by_link},
    {"/fenro/logout", "POST", log_out},
};

void serve() {
  if (variable("HTTPS") != "on") return answer(FORBIDDEN, LOGIN_REFUSED);
  bool known = false;
  for (const Route& route : ROUTES) {
    if (route.url != variable("SCRIPT_URL")) continue;
    if (route.method == variable("REQUEST_METHOD")) return route.run();
    known = true;
  }
  if (known) return answer(NOT_ALLOWED, LOGIN_REFUSED, JSON, "Allow: GET, POST\r\n");
  answer(NOT_FOUND, LOGIN_REFUSED);
}

}  // namespace

int main() {
  constexpr rlimit NO_CORE{0, 0};  // a core would hold the password
  setrlimit(RLIMIT_CORE, &NO_CORE);
  umask(PRIVATE_UMASK);  // the web server's may take bits away that our folders need
  serve();
  fenro::discard_body(STDIN_FILENO);
  return std::fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
