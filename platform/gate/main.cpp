// fenro-web-gate PROGRAMS [SOCKET]: receives the requests of a web server on SOCKET, or on the
// socket that systemd passes, and forwards them to fcgiwrap, which listens on PROGRAMS.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/end_signals.h"
#include "gate/gate.h"

namespace {

using fenro::Fd;

constexpr int FIRST_HANDED_OVER = 3;
constexpr mode_t SOCKET_UMASK = 0177;  // for our own user only

Fd handed_over() {
  const char* const pid = std::getenv("LISTEN_PID");
  if (!pid || std::strtol(pid, nullptr, 10) != getpid()) return Fd{};
  Fd fd{FIRST_HANDED_OVER};
  fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
  fcntl(fd.get(), F_SETFL, O_NONBLOCK);
  return fd;
}

Fd listen_on(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return Fd{};
  path.copy(address.sun_path, path.size());
  unlink(path.c_str());
  umask(SOCKET_UMASK);
  Fd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  if (!fd || bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return Fd{};
  return listen(fd.get(), SOMAXCONN) == 0 ? std::move(fd) : Fd{};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::fputs("usage: fenro-web-gate PROGRAMS [SOCKET]\n", stderr);
    return 2;
  }
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }
  constexpr rlimit NO_CORE{0, 0};  // a core would hold passwords
  setrlimit(RLIMIT_CORE, &NO_CORE);
  fenro::block_end_signals();
  const sigset_t signals = fenro::end_signals();
  Fd stop{signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK)};
  Fd listener = argc == 3 ? listen_on(argv[2]) : handed_over();
  if (!stop || !listener) {
    std::fprintf(stderr, "fenro-web-gate: cannot listen: %s\n", std::strerror(errno));
    return 1;
  }
  return fenro::gate::Gate{std::move(listener), std::move(stop), argv[1]}.run();
}
