// fenro-openvpn-manage COMMAND...: gives the OpenVPN server's daemon commands and prints what it
// answers. The exit status is 0 when it has answered all of them, be it with an error.
#include <cstdio>
#include <cstdlib>

#include "openvpn/management.h"

namespace {

constexpr int PATIENCE =
    10;  // seconds of silence; the interface may be in use by someone else meanwhile

// An answer is one line of success or failure, or lines up to END. What the daemon says unasked
// begins with ">".
bool print_answer(fenro::openvpn::Management& daemon) {
  while (const auto line = daemon.hear(PATIENCE)) {
    if (line->starts_with('>')) continue;
    std::puts(line->c_str());
    if (*line == "END" || line->starts_with("SUCCESS:") || line->starts_with("ERROR:")) return true;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  using fenro::openvpn::Management;
  Management daemon = Management::at_port(fenro::openvpn::SERVER_PORT);
  if (!daemon) return EXIT_FAILURE;
  for (int i = 1; i < argc; ++i) {
    if (!daemon.say(argv[i]) || !print_answer(daemon)) return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
