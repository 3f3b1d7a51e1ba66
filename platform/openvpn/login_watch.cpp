// fenro-openvpn-login clientSLOT: stays with the OpenVPN daemon of a client profile as long as it lives, and has its
// questions for a login answered.
//
// The daemon asks on its management socket, to which the one who answers (ormel.cauth SLOT) must connect itself, and
// which takes one client at a time. So this program listens there, makes room when the question comes, and is back
// afterwards. When the daemon has gone, the start script is asked to dial again, but not after a refused login, which
// another attempt would not change but make the server block the account. Whoever stops the tunnel ends this one first.
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "openvpn/management.h"

namespace {

using fenro::openvpn::Management;

constexpr std::string_view PREFIX = "client";
constexpr std::string_view QUESTION = ">PASSWORD:Need 'Auth'";
constexpr std::string_view REFUSAL = ">PASSWORD:Verification Failed";
constexpr const char* ANSWERER = "/usr/sbin/ormel.cauth";
constexpr const char* SCRIPT = "/etc/init.d/vpn_openvpn_client.sh";
constexpr auto REDIAL_PAUSE = std::chrono::seconds(10);
constexpr auto PAUSE = std::chrono::milliseconds(100);
constexpr int CONNECT_ROUNDS = 100;  // of a pause each; a daemon makes its socket first of all

// What a time with the daemon ended with.
enum class Ended { Gone, Asked, Refused, NeverThere };

Management connect(const std::string& path) {
  for (int round = 0; round < CONNECT_ROUNDS; ++round) {
    if (Management daemon = Management::at_socket(path)) return daemon;
    std::this_thread::sleep_for(PAUSE);
  }
  return Management::at_socket(path);
}

Ended listen(Management& daemon) {
  while (const auto line = daemon.hear()) {
    if (line->starts_with(QUESTION)) return Ended::Asked;
    if (line->starts_with(REFUSAL)) return Ended::Refused;
  }
  return Ended::Gone;
}

// The daemon waits for its answer; when none can be given it goes on waiting, and its server gives it up.
void answer(const char* slot) {
  const pid_t child = fork();
  if (child == 0) {
    execl(ANSWERER, ANSWERER, slot, nullptr);
    _exit(EXIT_FAILURE);
  }
  if (child > 0) waitpid(child, nullptr, 0);
}

// The whole life of a daemon.
Ended attend(const std::string& path, const char* slot) {
  for (Ended before = Ended::NeverThere;;) {
    Ended ended = Ended::Gone;
    {
      Management daemon = connect(path);
      if (!daemon) return before == Ended::NeverThere ? before : Ended::Gone;
      ended = listen(daemon);
    }
    if (ended != Ended::Asked) return ended;
    answer(slot);
    std::this_thread::sleep_for(PAUSE);  // where no answer could be given it is asked again at once
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
  if (attend("/tmp/openvpn.client" + number + ".sock", number.c_str()) != Ended::Gone) return EXIT_FAILURE;
  std::this_thread::sleep_for(REDIAL_PAUSE);
  execl(SCRIPT, SCRIPT, "redial", number.c_str(), nullptr);
  return EXIT_FAILURE;
}
