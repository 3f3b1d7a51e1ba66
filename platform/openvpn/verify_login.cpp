// fenro-openvpn-verify: decides a login of the OpenVPN server without holding up the daemon.
//
// The daemon runs this program for each login and carries no packet until it has ended. A wrong
// password takes about two seconds on purpose, so the answer is deferred: the program forks and
// ends with DEFERRED at once. The child runs the login hook and writes its answer into the file
// that the daemon watches.
//
// At most MOST_PENDING logins wait at a time, and at most MOST_HOOKS of them run the hook. Each
// holds the lock of a file in LOCK_FOLDER, which the kernel releases when the child ends, however
// it ends.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <tuple>
#include <unistd.h>

#include "base/file.h"
#include "base/handle.h"
#include "base/second_factor.h"
#include "common/connection_log.h"
#include "common/login_policy.h"

namespace {

using fenro::Fd;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr const char* HOOK = "/usr/sbin/ormel.sauth";
constexpr const char* LOCK_FOLDER = "/run/fenro/openvpn-logins";
constexpr int MOST_HOOKS = 16;
constexpr int MOST_PENDING = 64;
constexpr auto LONGEST_WAIT = seconds(20);  // for a free place; the daemon gives up after a minute
constexpr auto LONGEST_HOOK = seconds(30);
constexpr auto PAUSE = milliseconds(20);

// Exit statuses that the daemon knows.
enum Status { ADMITTED = 0, REFUSED = 1, DEFERRED = 2 };

// All that the hook reads of its environment.
constexpr const char* HOOK_VARIABLES[] = {"username", "password", "untrusted_ip",
                                          "auth_failed_reason_file"};

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

// Returns a free file of `name`.0 to `name`.`count` - 1, locked, or an empty descriptor when all
// are taken.
Fd take_one_of(const char* name, int count) {
  for (int i = 0; i < count; ++i) {
    const std::string path = std::string(LOCK_FOLDER) + '/' + name + '.' + std::to_string(i);
    Fd fd{open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
               S_IRUSR | S_IWUSR)};
    if (fd && flock(fd.get(), LOCK_EX | LOCK_NB) == 0) return fd;
  }
  return Fd{};
}

Fd wait_for_hook() {
  const auto deadline = Clock::now() + LONGEST_WAIT;
  Fd turn = take_one_of("hook", MOST_HOOKS);
  while (!turn && Clock::now() < deadline) {
    std::this_thread::sleep_for(PAUSE);
    turn = take_one_of("hook", MOST_HOOKS);
  }
  return turn;
}

[[noreturn]] void become_hook() {
  std::string values[std::size(HOOK_VARIABLES)];
  char* environment[std::size(HOOK_VARIABLES) + 1] = {};
  for (std::size_t i = 0; i < std::size(HOOK_VARIABLES); ++i) {
    values[i] = std::string(HOOK_VARIABLES[i]) + '=' + variable(HOOK_VARIABLES[i]);
    environment[i] = values[i].data();
  }
  std::string name = HOOK;
  char* arguments[] = {name.data(), nullptr};
  execve(HOOK, arguments, environment);
  _exit(REFUSED);
}

// Returns the hook's exit status. A hook that does not end in time is killed and counts as a
// refusal.
int run_hook() {
  const pid_t child = fork();
  if (child < 0) return REFUSED;
  if (child == 0) become_hook();
  const Fd process{static_cast<int>(syscall(SYS_pidfd_open, child, 0))};
  pollfd end{process.get(), POLLIN, 0};
  const auto limit = std::chrono::duration_cast<milliseconds>(LONGEST_HOOK).count();
  if (process && TEMP_FAILURE_RETRY(poll(&end, 1, static_cast<int>(limit))) != 1) {
    syslog(LOG_ERR, "%s does not end, the login is refused", HOOK);
    kill(child, SIGKILL);
  }
  int status = 0;
  const bool ended = TEMP_FAILURE_RETRY(waitpid(child, &status, 0)) == child && WIFEXITED(status);
  return ended ? WEXITSTATUS(status) : REFUSED;
}

// The file is the daemon's, which removes it when it no longer waits: a missing one is not created
// again.
void answer(const std::string& path, bool admitted) {
  const Fd file{open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW)};
  if (file) std::ignore = fenro::write_all(file.get(), admitted ? "1" : "0");
}

// The daemon waits for the ends of our streams, too.
void leave_daemon() {
  setsid();
  const Fd null{open("/dev/null", O_RDWR | O_CLOEXEC)};
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null.get(), stream);
}

fenro::OnlineUser this_login() {
  constexpr std::uint32_t OPENVPN = 4;
  fenro::OnlineUser login{};
  login.type = OPENVPN;
  login.source = variable("untrusted_ip");
  login.user = variable("username");
  return login;
}

// What the hook's status says about a second factor, or what it has written for the client, without
// the words for its program: "TEMP[backoff 60]:too many …".
std::string reason_of(int status) {
  if (const char* const factor = fenro::reason_of_factor(fenro::factor_of_status(status)))
    return factor;
  std::string text;
  if (fenro::read_file(variable("auth_failed_reason_file").c_str(), text) != 0 || text.empty())
    return "wrong password";
  const std::size_t flags = text.starts_with("TEMP") ? text.find("]:") : std::string::npos;
  return flags == std::string::npos ? text : text.substr(flags + 2);
}

int refuse(const char* reason) {
  syslog(LOG_WARNING, "login of a client at %s refused: %s", variable("untrusted_ip").c_str(),
         reason);
  return REFUSED;
}

}  // namespace

int main() {
  openlog("fenro-openvpn-verify", LOG_PID, LOG_DAEMON);
  const std::string control = variable("auth_control_file");
  if (control.empty()) become_hook();  // the daemon cannot take the answer later
  if (!fenro::make_private_folder(LOCK_FOLDER))
    return refuse("the folder of its locks cannot be used");
  const Fd place = take_one_of("pending", MOST_PENDING);
  if (!place) return refuse("too many logins are waiting");

  const pid_t child = fork();
  if (child < 0) return refuse("no further process can be started");
  if (child > 0) return DEFERRED;
  leave_daemon();
  // First the user's turn: many logins of one user must not take the places of all.
  const fenro::LoginTurn turn{variable("username")};
  const Fd hook = turn ? wait_for_hook() : Fd{};
  if (!hook) {
    // The hook writes the rows of those that it refuses.
    refuse("the logins before it take too long");
    std::ignore = fenro::log_refusal(
        this_login(), "other logins take too long");  // it is refused without it, too
  }
  const int status = hook ? run_hook() : REFUSED;
  const bool admitted = status == ADMITTED;
  const std::string reason =
      admitted ? "" : reason_of(status);  // the daemon removes the file with the answer
  answer(control, admitted);
  if (hook && !admitted) fenro::tell_refusal(this_login(), reason);
  return EXIT_SUCCESS;
}
