// Keeps users and devices out of the servers for a time.
//
//   held user|peer WHO              exit status 0 for one who is kept out
//   refuse TYPE SOURCE WHO          the same for a user at a server, with a row in the log
//   add user|peer WHO SECONDS [NAME [BY]]
//                                   NAME is how people call a device, BY who has asked for it
//   lift WHO                        by user, key or name; exit status 3 when no one is held so
//   list                            a JSON array of the holds in force
//   limit WHO SINCE [NAME [BY]]     keeps a device out from that second on (since 1970)
//   unlimit WHO                     by key; exit status 3 when it has no limit
//   limits                          a JSON array of the limits, begun or not
//   peers                           the keys of devices that are kept out, a line each
//   watch                           ends holds of devices in time, and begins their limits; for
//                                   the start of their server
//   expire                          ends holds whose time is over; for maintenance
//
// After a change of devices the WireGuard server's script applies it. The exit status is 0 when all
// was done, 1 after a failure and 2 for a wrong call.
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <span>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <vector>

#include "base/handle.h"
#include "common/connection_log.h"
#include "common/holds.h"
#include "common/json.h"

namespace {

using namespace fenro;
using Words = std::span<char* const>;

constexpr const char* WIREGUARD = "/etc/init.d/vpn_wireguard.sh";
constexpr int FREE = 1;
constexpr int USAGE = 2;
constexpr int NOT_FOUND = 3;

int fail(const char* text) {
  std::fprintf(stderr, "fenro-hold: %s\n", text);
  return EXIT_FAILURE;
}

bool is_kind(std::string_view word, Hold::Kind& kind) {
  for (const Hold::Kind known : {Hold::Kind::User, Hold::Kind::Peer}) {
    if (word != word_of(known)) continue;
    kind = known;
    return true;
  }
  return false;
}

template <typename Number>
bool parse(std::string_view text, Number& out) {
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), out);
  return failure == std::errc{} && end == text.data() + text.size();
}

// The running interface gets the devices that the list leaves it.
int apply_peers() {
  static char script[] = "vpn_wireguard.sh", action[] = "sync_peers";
  char* arguments[] = {script, action, nullptr};
  char* environment[] = {nullptr};
  const pid_t child = fork();
  if (child == 0) {
    execve(WIREGUARD, arguments, environment);
    _exit(EXIT_FAILURE);
  }
  int status = 0;
  const bool ended = child > 0 && TEMP_FAILURE_RETRY(waitpid(child, &status, 0)) == child;
  return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0
             ? EXIT_SUCCESS
             : fail("the WireGuard server does not apply it");
}

// After a change: the server is asked for devices only.
int finish(const std::vector<Hold>& changed) {
  return std::ranges::any_of(changed,
                             [](const Hold& hold) { return hold.kind != Hold::Kind::User; })
             ? apply_peers()
             : EXIT_SUCCESS;
}

int held(Words words) {
  Hold::Kind kind{};
  if (!is_kind(words[0], kind)) return USAGE;
  return Holds{}.holds(kind, words[1]) ? EXIT_SUCCESS : FREE;
}

int refuse(Words words) {
  OnlineUser login{};
  if (!parse(words[0], login.type)) return USAGE;
  if (!is_held(words[2])) return FREE;
  login.source = words[1];
  login.user = words[2];
  std::ignore = log_refusal(login, "kept out by an administrator");  // refused without the row, too
  return EXIT_SUCCESS;
}

int expire(Words) {
  std::vector<Hold> ended;
  if (!Holds{}.expire(ended)) return fail("the list cannot be written");
  return finish(ended);
}

// Goes on in its own process, beside the caller. False in the caller.
bool in_background() {
  if (fork() != 0) return false;
  setsid();
  const Fd null{open("/dev/null", O_RDWR | O_CLOEXEC)};
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null.get(), stream);
  if (chdir("/") != 0) _exit(EXIT_FAILURE);
  return true;
}

// A user's hold ends at the next login, but no one asks for a device: a process waits for its end.
void expire_in_time(std::int64_t seconds) {
  if (!in_background()) return;
  timespec end{};
  clock_gettime(CLOCK_BOOTTIME, &end);
  end.tv_sec += seconds + 1;
  while (clock_nanosleep(CLOCK_BOOTTIME, TIMER_ABSTIME, &end, nullptr) == EINTR) continue;
  _exit(expire({}));
}

// The next time at which a limit begins; 0 when none will.
std::int64_t next_limit(std::int64_t now) {
  std::int64_t next = 0;
  for (const Hold& hold : Holds{}.limits()) {
    if (hold.since > now && (next == 0 || hold.since < next)) next = hold.since;
  }
  return next;
}

// One process begins all limits in time; a second one that is started meanwhile gives up. It looks
// at the list again and again, so that it learns of new limits and of a clock that was set.
void begin_limits_in_time() {
  constexpr std::int64_t LOOK = 20;  // seconds between two looks
  constexpr int TRIES = 10;          // for a lock whose owner may be about to end
  constexpr const char* LOCK = "/run/fenro/limits.lock";
  if (next_limit(std::time(nullptr)) == 0 || !in_background()) return;
  const Fd lock{open(LOCK, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR)};
  int tries = TRIES;
  while (lock && flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (--tries == 0) _exit(EXIT_SUCCESS);
    sleep(LOOK / TRIES + 1);
  }
  std::int64_t now = std::time(nullptr);
  for (std::int64_t next = next_limit(now); next != 0; next = next_limit(now)) {
    sleep(static_cast<unsigned>(std::clamp<std::int64_t>(next - now, 1, LOOK)));
    const std::int64_t before = now;
    now = std::time(nullptr);
    const std::vector<Hold> limits = Holds{}.limits();
    if (std::ranges::any_of(
            limits, [&](const Hold& hold) { return hold.since > before && hold.since <= now; }))
      std::ignore = apply_peers();  // the next look cannot do better
  }
  _exit(EXIT_SUCCESS);
}

int limit(Words words) {
  Hold hold;
  if (!parse(words[1], hold.since) || hold.since < 0 || hold.since >= Holds::NO_END ||
      words[0][0] == '\0')
    return USAGE;
  hold.who = words[0];
  hold.name = words.size() > 2 ? words[2] : words[0];
  hold.by = words.size() > 3 ? words[3] : "";
  if (!Holds{}.limit(std::move(hold))) return fail("the list cannot be written, or is full");
  begin_limits_in_time();
  return apply_peers();
}

int unlimit(Words words) {
  std::vector<Hold> ended;
  if (!Holds{}.lift(
          [&](const Hold& hold) { return hold.kind == Hold::Kind::Limit && hold.who == words[0]; },
          ended))
    return fail("the list cannot be written");
  return ended.empty() ? NOT_FOUND : apply_peers();
}

int add(Words words) {
  Hold hold;
  std::int64_t seconds = 0;
  if (!is_kind(words[0], hold.kind) || !parse(words[2], seconds) || seconds < 1 ||
      seconds > Holds::LONGEST || words[1][0] == '\0')
    return USAGE;
  hold.who = words[1];
  hold.name = words.size() > 3 ? words[3] : words[1];
  hold.by = words.size() > 4 ? words[4] : "";
  if (!Holds{}.add(hold, seconds)) return fail("the list cannot be written, or is full");
  if (hold.kind == Hold::Kind::Peer) expire_in_time(seconds);
  return finish({hold});
}

int lift(Words words) {
  const std::string_view who = words[0];
  std::vector<Hold> ended;
  const auto named = [&](const Hold& hold) {
    return hold.kind != Hold::Kind::Limit && (hold.who == who || hold.name == who);
  };
  if (!Holds{}.lift(named, ended)) return fail("the list cannot be written");
  return ended.empty() ? NOT_FOUND : finish(ended);
}

int watch(Words) {
  const Holds::Moment now = Holds::current();
  for (const Hold& hold : Holds{}.list()) {
    if (hold.kind != Hold::Kind::Peer) continue;
    const std::int64_t up = hold.boot == now.boot ? hold.boot_until - now.up : 0;
    expire_in_time(std::max({hold.until - now.wall, up, std::int64_t{0}}));
  }
  begin_limits_in_time();
  return EXIT_SUCCESS;
}

int print(const std::vector<Hold>& holds) {
  const Json rows{json_array()};
  for (const Hold& hold : holds) {
    json_array_append_new(
        rows.get(), json_pack("{s:s, s:o, s:o, s:o, s:I, s:I}", "kind", word_of(hold.kind), "who",
                              json_text(hold.who).release(), "name", json_text(hold.name).release(),
                              "by", json_text(hold.by).release(), "since", json_int_t{hold.since},
                              "until", json_int_t{hold.until}));
  }
  return std::puts(compact(rows.get()).c_str()) >= 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int list(Words words) {
  std::ignore = expire(words);  // those in force are the same
  std::vector<Hold> holds = Holds{}.list();
  std::erase_if(holds, [](const Hold& hold) { return hold.kind == Hold::Kind::Limit; });
  return print(holds);
}

int limits(Words) {
  return print(Holds{}.limits());
}

int peers(Words) {
  for (const Hold& hold : Holds{}.list()) {
    if (hold.kind != Hold::Kind::User) std::puts(hold.who.c_str());
  }
  return EXIT_SUCCESS;
}

struct Command {
  std::string_view name;
  std::size_t least, most;  // words after it
  int (*run)(Words words);
};
constexpr Command COMMANDS[] = {
    {"held", 2, 2, held},       {"refuse", 3, 3, refuse}, {"add", 3, 5, add},
    {"lift", 1, 1, lift},       {"list", 0, 0, list},     {"limit", 2, 4, limit},
    {"unlimit", 1, 1, unlimit}, {"limits", 0, 0, limits}, {"peers", 0, 0, peers},
    {"watch", 0, 0, watch},     {"expire", 0, 0, expire},
};

}  // namespace

int main(int argc, char** argv) {
  const Words words{argv, static_cast<std::size_t>(argc)};
  for (const Command& command : COMMANDS) {
    if (words.size() < 2 || command.name != words[1]) continue;
    const Words rest = words.subspan(2);
    const int status =
        rest.size() >= command.least && rest.size() <= command.most ? command.run(rest) : USAGE;
    if (status != USAGE) return status;
  }
  std::fputs(
      "usage: held user|peer WHO, refuse TYPE SOURCE WHO, add user|peer WHO SECONDS [NAME [BY]], "
      "lift WHO, list, "
      "limit WHO SINCE [NAME [BY]], unlimit WHO, limits, peers, watch, expire\n",
      stderr);
  return USAGE;
}
