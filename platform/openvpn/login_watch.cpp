// fenro-openvpn-login clientSLOT: stays with the OpenVPN daemon of a client profile as long as it
// lives, has its questions for a login answered, and notes why the tunnel is not up.
//
// The daemon asks on its management socket, to which the one who answers (ormel.cauth SLOT) must
// connect itself, and which takes one client at a time. So this program listens there, makes room
// when the question comes, and is back afterwards. When the daemon has gone, the start script is
// asked to dial again, but not after a final reason, which another attempt would not change: that
// ends the daemon, whatever the profile says. A refused login does so at once, since the next one
// would make the server block the account. A script that stops the tunnel ends this one first.
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>

#include "common/heard.h"
#include "openvpn/attempts.h"
#include "openvpn/management.h"
#include "openvpn/signs.h"

namespace {

using fenro::openvpn::Attempts;
using fenro::openvpn::Management;
using fenro::openvpn::Sign;

constexpr std::string_view PREFIX = "client";
constexpr std::string_view QUESTION = ">PASSWORD:Need 'Auth'";
constexpr std::string_view STATE = ">STATE:";
constexpr std::string_view CONNECTED = ",CONNECTED,";
constexpr std::string_view BYTES =
    ">BYTECOUNT:";  // received from the server, keep-alives too, and sent
constexpr const char* REPORTS[] = {"state on", "state", "bytecount 5"};  // the last in seconds
constexpr const char* COUNT = "remote-entry-count";
constexpr const char* ANSWERER = "/usr/sbin/ormel.cauth";
constexpr const char* NOTER = "/usr/lib/fenro/fenro-reason";
constexpr const char* SCRIPT = "/etc/init.d/vpn_openvpn_client.sh";
constexpr int LOOK_SECONDS = 2;
constexpr int FIRST_UNIT = 2000;  // of the interface, less the slot
constexpr auto REDIAL_PAUSE = std::chrono::seconds(10);
constexpr auto PAUSE = std::chrono::milliseconds(100);
constexpr auto CONNECT_PAUSE =
    std::chrono::milliseconds(5);     // a daemon that got its login may end soon
constexpr int CONNECT_ROUNDS = 2000;  // of a pause each; a daemon makes its socket first of all
// After the answer the daemon listens again as soon as it gets to it, on a busy machine amid its
// handshake.
constexpr int RECONNECT_ROUNDS = 600;

// What a time with the daemon ended with.
enum class Ended { Gone, Asked, Refused, NeverThere };

template <typename... Words>
void run(const char* program, Words... words) {
  const pid_t child = fork();
  if (child == 0) {
    execl(program, program, words..., nullptr);
    _exit(EXIT_FAILURE);
  }
  if (child > 0) waitpid(child, nullptr, 0);
}

// A tunnel that is up and gets bytes from its server is alive, whatever passes through it.
class Heard {
 public:
  explicit Heard(std::string interface) : interface_(std::move(interface)) {}
  void take(std::string_view line) {
    if (line.find(CONNECTED) != std::string_view::npos) {
      connected_ = true;
    } else if (line.starts_with(STATE)) {
      connected_ = false;
    } else if (line.starts_with(BYTES)) {
      std::string received{line.substr(BYTES.size(), line.find(',') - BYTES.size())};
      if (connected_ && received != received_) fenro::note_heard(interface_);
      received_ = std::move(received);
    }
  }

 private:
  std::string interface_;
  bool connected_ = false;
  std::string received_{};
};

Management connect(const std::string& path, int rounds) {
  for (int round = 0; round < rounds; ++round) {
    if (Management daemon = Management::at_socket(path)) return daemon;
    std::this_thread::sleep_for(CONNECT_PAUSE);
  }
  return Management::at_socket(path);
}

// What the daemon has logged before we came is heard once.
Ended listen(Management& daemon, bool first, Attempts& attempts, Heard heard) {
  std::ignore = daemon.say(first ? "log on all" : "log on");  // a daemon that is gone shows below
  for (const char* report : REPORTS) std::ignore = daemon.say(report);
  for (;;) {
    const auto line = daemon.hear(LOOK_SECONDS);
    if (daemon.closed()) return Ended::Gone;
    const auto now = std::chrono::steady_clock::now();
    attempts.look(now);
    if (!line) continue;
    if (line->starts_with(QUESTION)) return Ended::Asked;
    attempts.take(*line, now);
    heard.take(*line);
    if (line->starts_with(STATE)) std::ignore = daemon.say(COUNT);  // known once it connects
    if (!attempts.over()) continue;
    std::ignore =
        daemon.say("signal SIGTERM");  // a profile may ask for the same login over and over
    return Ended::Refused;
  }
}

// The whole life of a daemon. It waits for its answer; when none can be given it goes on waiting,
// and its server gives it up.
Ended attend(const std::string& path, const char* slot, Attempts& attempts, const Heard& heard) {
  auto asked = std::chrono::steady_clock::time_point::min();
  for (Ended before = Ended::NeverThere;;) {
    Ended ended = Ended::Gone;
    {
      Management daemon =
          connect(path, before == Ended::NeverThere ? CONNECT_ROUNDS : RECONNECT_ROUNDS);
      if (!daemon) return before == Ended::NeverThere ? before : Ended::Gone;
      ended = listen(daemon, before == Ended::NeverThere, attempts, heard);
    }
    if (ended != Ended::Asked) return ended;
    const auto now = std::chrono::steady_clock::now();
    if (before == Ended::Asked && now - asked < PAUSE)
      std::this_thread::sleep_for(PAUSE);  // no answer is possible
    asked = now;
    run(ANSWERER, slot);
    before = ended;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view name = argc == 2 ? argv[1] : "";
  int slot = 0;
  if (!name.starts_with(PREFIX)) return EXIT_FAILURE;
  const auto [end, failure] =
      std::from_chars(name.data() + PREFIX.size(), name.data() + name.size(), slot);
  if (failure != std::errc{} || end != name.data() + name.size()) return EXIT_FAILURE;

  const std::string number = std::to_string(slot);
  const std::string section = "OPENVPN_CLIENT" + number;
  Attempts attempts{[&section](const std::optional<Sign>& sign) {
    if (sign) {
      run(NOTER, section.c_str(), std::string(sign->code).c_str(), sign->detail.c_str());
    } else {
      run(NOTER, section.c_str(), "--clear");
    }
  }};
  const Heard heard{"tun" + std::to_string(FIRST_UNIT + slot)};
  const Ended ended =
      attend("/tmp/openvpn.client" + number + ".sock", number.c_str(), attempts, heard);
  attempts.end();
  if (ended != Ended::Gone || attempts.final()) return EXIT_FAILURE;
  std::this_thread::sleep_for(REDIAL_PAUSE);
  execl(SCRIPT, SCRIPT, "redial", number.c_str(), nullptr);
  return EXIT_FAILURE;
}
