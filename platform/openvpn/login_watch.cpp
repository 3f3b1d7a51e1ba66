// fenro-openvpn-login clientSLOT: stays with the OpenVPN daemon of a client profile as long as it
// lives, has its questions for a login answered, and notes why the tunnel is not up.
//
// The daemon asks on its management socket, and takes one client at a time. This program stays
// connected, since the line that names the cause of a failure may be the daemon's last, soon after
// its login. The one who answers (ormel.cauth SLOT) speaks through it, on the socket that it
// connects to. When the daemon has gone, the start script is asked to dial again, but not after a
// final reason, which another attempt would not change: that ends the daemon, whatever the profile
// says. A refused login does so at once, since the next one would make the server block the
// account. A script that stops the tunnel ends this one first.
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

#include "common/heard.h"
#include "openvpn/attempts.h"
#include "openvpn/client_sockets.h"
#include "openvpn/login_socket.h"
#include "openvpn/management.h"
#include "openvpn/signs.h"

namespace {

using fenro::openvpn::Attempts;
using fenro::openvpn::LoginSocket;
using fenro::openvpn::Management;
using fenro::openvpn::Sign;

constexpr std::string_view PREFIX = "client";
constexpr std::string_view STATE = ">STATE:";
constexpr std::string_view CONNECTED = ",CONNECTED,";
constexpr std::string_view BYTES =
    ">BYTECOUNT:";  // received from the server, keep-alives too, and sent
// What is said to the daemon at first: all that it has logged so far is heard too. The last is in
// seconds.
constexpr const char* REPORTS[] = {"log on all", "state on", "state", "bytecount 5"};
constexpr const char* COUNT = "remote-entry-count";
constexpr const char* ANSWERER = "/usr/sbin/ormel.cauth";
constexpr const char* NOTER = "/usr/lib/fenro/fenro-reason";
constexpr const char* SCRIPT = "/etc/init.d/vpn_openvpn_client.sh";
constexpr int LOOK_MILLISECONDS = 2000;
constexpr int END_SECONDS = 2;    // of silence once a daemon is to end
constexpr int FIRST_UNIT = 2000;  // of the interface, less the slot
constexpr auto REDIAL_PAUSE = std::chrono::seconds(10);
constexpr auto CONNECT_PAUSE = std::chrono::milliseconds(5);
constexpr int CONNECT_ROUNDS = 2000;  // of a pause each; a daemon makes its socket first of all

// What a time with the daemon ended with.
enum class Ended { Gone, Refused, NeverThere };

template <typename... Words>
pid_t start(const char* program, Words... words) {
  const pid_t child = fork();
  if (child == 0) {
    execl(program, program, words..., nullptr);
    _exit(EXIT_FAILURE);
  }
  return child;
}

template <typename... Words>
void run(const char* program, Words... words) {
  if (const pid_t child = start(program, words...); child > 0) waitpid(child, nullptr, 0);
}

// Has the daemon's questions answered. An answerer may take long to end once it has had its say.
class Answerers {
 public:
  explicit Answerers(const char* slot) : slot_(slot) {}
  void call() {
    if (const pid_t child = start(ANSWERER, slot_); child > 0) running_.push_back(child);
  }
  [[nodiscard]] bool any() {
    std::erase_if(running_, [](pid_t child) { return waitpid(child, nullptr, WNOHANG) != 0; });
    return !running_.empty();
  }

 private:
  const char* slot_;
  std::vector<pid_t> running_{};
};

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

Management connect(const std::string& path) {
  for (int round = 0; round < CONNECT_ROUNDS; ++round) {
    if (Management daemon = Management::at_socket(path)) return daemon;
    std::this_thread::sleep_for(CONNECT_PAUSE);
  }
  return Management::at_socket(path);
}

void note(const std::string& section, const Sign& sign) {
  run(NOTER, section.c_str(), std::string(sign.code).c_str(), sign.detail.c_str());
}

class Attendant {
 public:
  Attendant(int slot, const char* number, std::string section, Attempts& attempts)
      : daemon_(connect(fenro::openvpn::daemon_socket(slot))),
        path_(fenro::openvpn::login_socket(slot)),
        section_(std::move(section)),
        answerers_(number),
        attempts_(attempts),
        heard_("tun" + std::to_string(FIRST_UNIT + slot)) {}

  // The whole life of a daemon. It waits for its answer; when none can be given it goes on
  // waiting, and its server gives it up.
  Ended attend() {
    if (!daemon_) return Ended::NeverThere;
    offer();
    for (const char* report : REPORTS) std::ignore = daemon_.say(report);
    for (;;) {
      while (const auto line = daemon_.next()) {
        if (!take(*line)) return Ended::Refused;
      }
      if (daemon_.closed()) return Ended::Gone;
      wait();
      attempts_.look(Clock::now());
    }
  }

 private:
  using Clock = std::chrono::steady_clock;

  void offer() {
    if (!logins_.offer()) note(section_, {"not-written", path_ + ": " + std::strerror(errno)});
  }

  // False once the daemon has been ended.
  bool take(const std::string& line) {
    const bool before = logins_.asked();
    logins_.take(line);
    if (logins_.asked() && !before) answerers_.call();
    attempts_.take(line, Clock::now());
    heard_.take(line);
    if (line.starts_with(STATE)) std::ignore = daemon_.say(COUNT);  // known once it connects
    if (!attempts_.over()) return true;
    // A profile may ask for the same login over and over. A connection that closes with words of
    // the daemon unread may take the command with it.
    std::ignore = daemon_.say("signal SIGTERM");
    while (daemon_.hear(END_SECONDS)) continue;
    return false;
  }

  void wait() {
    pollfd both[] = {{daemon_.fd(), POLLIN, 0}, {logins_.fd(), POLLIN, 0}};
    if (poll(both, std::size(both), LOOK_MILLISECONDS) == 0) return look_after_question();
    if (both[0].revents != 0) daemon_.fill();
    if (both[1].revents != 0) logins_.serve(daemon_);
  }

  // After a while of silence: a question that got no answer is put again.
  void look_after_question() {
    if (answerers_.any() || !logins_.asked()) return;
    offer();
    answerers_.call();
  }

  Management daemon_;
  std::string path_;
  std::string section_;
  LoginSocket logins_{path_};
  Answerers answerers_;
  Attempts& attempts_;
  Heard heard_;
};

}  // namespace

int main(int argc, char** argv) {
  const std::string_view name = argc == 2 ? argv[1] : "";
  int slot = 0;
  if (!name.starts_with(PREFIX)) return EXIT_FAILURE;
  const auto [end, failure] =
      std::from_chars(name.data() + PREFIX.size(), name.data() + name.size(), slot);
  if (failure != std::errc{} || end != name.data() + name.size()) return EXIT_FAILURE;

  prctl(PR_SET_DUMPABLE, 0);  // passwords pass through this memory

  const std::string number = std::to_string(slot);
  const std::string section = "OPENVPN_CLIENT" + number;
  Attempts attempts{[&section](const std::optional<Sign>& sign) {
    if (sign) {
      note(section, *sign);
    } else {
      run(NOTER, section.c_str(), "--clear");
    }
  }};
  const Ended ended = Attendant{slot, number.c_str(), section, attempts}.attend();
  attempts.end();
  if (ended != Ended::Gone || attempts.final()) return EXIT_FAILURE;
  std::this_thread::sleep_for(REDIAL_PAUSE);
  execl(SCRIPT, SCRIPT, "redial", number.c_str(), nullptr);
  return EXIT_FAILURE;
}
