// What the far appliance of a pair runs: programs that the tests in the near one ask for, one after
// the other.
#include <cstdlib>

#include "support/far_appliance.h"

int main() {
  using namespace ormel;
  using namespace ormel::test;
  const sockaddr_in address = far::agent_address();
  const Fd listener{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  const int yes = 1;
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return EXIT_FAILURE;
  if (listen(listener.get(), 8) != 0) return EXIT_FAILURE;
  while (true) {
    const Fd caller{accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)};
    const std::vector<std::string> request = far::hear(caller.get());
    if (request.size() < 3) continue;
    const auto words = request.begin() + 2;
    const auto environment = words + std::stol(request[0]);
    const Result result = run({words, environment}, {environment, request.end()}, request[1]);
    far::say(caller.get(), {std::to_string(result.status), result.out, result.err});
  }
}
