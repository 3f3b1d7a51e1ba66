// fenro-openvpn-login clientSLOT: stays with the OpenVPN daemon of a client profile as long as it lives, has its
// questions for a login answered, and notes why the tunnel is not up.
//
// The daemon asks on its management socket, to which the one who answers (ormel.cauth SLOT) must connect itself, and
// which takes one client at a time. So this program listens there, makes room when the question comes, and is back
// afterwards. When the daemon has gone, the start script is asked to dial again, but not after a refused login, which
// another attempt would not change but make the server block the account: that ends the daemon, whatever the profile
// says. A script that stops the tunnel ends this one first.
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>

#include "base/reason.h"
#include "common/heard.h"
#include "openvpn/management.h"
#include "openvpn/signs.h"

namespace {

using fenro::openvpn::Management;
using fenro::openvpn::Sign;

constexpr std::string_view PREFIX = "client";
constexpr std::string_view QUESTION = ">PASSWORD:Need 'Auth'";
constexpr std::string_view LOGIN_REFUSED = "login-refused";
constexpr std::string_view STATE = ">STATE:";
constexpr std::string_view CONNECTED = ",CONNECTED,";
constexpr std::string_view BYTES = ">BYTECOUNT:";  // received from the server, keep-alives too, and sent
constexpr const char* REPORTS[] = {"state on", "state", "bytecount 5"};  // the last in seconds
constexpr const char* ANSWERER = "/usr/sbin/ormel.cauth";
constexpr const char* NOTER = "/usr/lib/fenro/fenro-reason";
constexpr const char* SCRIPT = "/etc/init.d/vpn_openvpn_client.sh";
constexpr int FIRST_UNIT = 2000;  // of the interface, less the slot
constexpr auto REDIAL_PAUSE = std::chrono::seconds(10);
constexpr auto PAUSE = std::chrono::milliseconds(100);
constexpr auto CONNECT_PAUSE = std::chrono::milliseconds(5);  // a daemon that got its login may end soon
constexpr int CONNECT_ROUNDS = 2000;                          // of a pause each; a daemon makes its socket first of all

constexpr int RECONNECT_ROUNDS = 40;

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

bool is_final(std::string_view code) {
  const ormel::ReasonFacts* const facts = ormel::find_reason(code);
  return facts && facts->final;
}

// Notes the reason of each attempt: the first final one, else the first at all and what the next attempt ends with.
// So a daemon that repeats itself, however fast, is written down once.
class Notes {
 public:
  explicit Notes(std::string section) : section_(std::move(section)) {}

  void take(std::string_view line) {
    if (fenro::openvpn::says_connected(line)) return forget();
    if (fenro::openvpn::says_reconnecting(line)) noted_ = {};
    if (fenro::openvpn::warns_of_own_certificate(line)) own_expired_ = true;
    auto sign = fenro::openvpn::sign_of(line);
    if (!sign) return;
    // A server that looks at the certificate ends the handshake, not always with a word.
    if (own_expired_ && noted_.empty() && fenro::openvpn::says_handshake_failed(line)) sign->code = "own-cert-expired";
    if (noted_.empty() || (is_final(sign->code) && !is_final(noted_))) note(*sign);
  }

  // The daemon has gone; what it said last is the reason.
  void end() {
    if (noted_.empty()) note({"daemon-ended", {}});
  }

  [[nodiscard]] bool refused() const { return noted_ == LOGIN_REFUSED; }
  [[nodiscard]] bool final() const { return is_final(noted_); }

 private:
  void note(const Sign& sign) {
    noted_ = sign.code;
    run(NOTER, section_.c_str(), std::string(sign.code).c_str(), sign.detail.c_str());
  }

  void forget() {
    noted_ = {};
    run(NOTER, section_.c_str(), "--clear");
  }

  std::string section_;
  std::string_view noted_{};  // in this attempt; one of the table's codes
  bool own_expired_ = false;
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

Management connect(const std::string& path, int rounds) {
  for (int round = 0; round < rounds; ++round) {
    if (Management daemon = Management::at_socket(path)) return daemon;
    std::this_thread::sleep_for(CONNECT_PAUSE);
  }
  return Management::at_socket(path);
}

// What the daemon has logged before we came is heard once.
Ended listen(Management& daemon, bool first, Notes& notes, Heard heard) {
  std::ignore = daemon.say(first ? "log on all" : "log on");  // a daemon that is gone shows below
  for (const char* report : REPORTS) std::ignore = daemon.say(report);
  while (const auto line = daemon.hear()) {
    if (line->starts_with(QUESTION)) return Ended::Asked;
    notes.take(*line);
    heard.take(*line);
    if (!notes.refused()) continue;
    std::ignore = daemon.say("signal SIGTERM");  // a profile may ask for the same login over and over
    return Ended::Refused;
  }
  return Ended::Gone;
}

// The whole life of a daemon. It waits for its answer; when none can be given it goes on waiting, and its server gives
// it up.
Ended attend(const std::string& path, const char* slot, Notes& notes, const Heard& heard) {
  auto asked = std::chrono::steady_clock::time_point::min();
  for (Ended before = Ended::NeverThere;;) {
    Ended ended = Ended::Gone;
    {
      Management daemon = connect(path, before == Ended::NeverThere ? CONNECT_ROUNDS : RECONNECT_ROUNDS);
      if (!daemon) return before == Ended::NeverThere ? before : Ended::Gone;
      ended = listen(daemon, before == Ended::NeverThere, notes, heard);
    }
    if (ended != Ended::Asked) return ended;
    const auto now = std::chrono::steady_clock::now();
    if (before == Ended::Asked && now - asked < PAUSE) std::this_thread::sleep_for(PAUSE);  // nobody can answer
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
  const auto [end, failure] = std::from_chars(name.data() + PREFIX.size(), name.data() + name.size(), slot);
  if (failure != std::errc{} || end != name.data() + name.size()) return EXIT_FAILURE;

  const std::string number = std::to_string(slot);
  Notes notes{"OPENVPN_CLIENT" + number};
  const Heard heard{"tun" + std::to_string(FIRST_UNIT + slot)};
  const Ended ended = attend("/tmp/openvpn.client" + number + ".sock", number.c_str(), notes, heard);
  notes.end();
  if (ended != Ended::Gone || notes.final()) return EXIT_FAILURE;
  std::this_thread::sleep_for(REDIAL_PAUSE);
  execl(SCRIPT, SCRIPT, "redial", number.c_str(), nullptr);
  return EXIT_FAILURE;
}
