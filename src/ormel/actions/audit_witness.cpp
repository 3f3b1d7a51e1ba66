#include "ormel/actions/audit_witness.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace ormel::audit {

namespace {

constexpr char RELEASED = 'r';
// What ends the process that is watched, often its whole group, must not end this one.
constexpr int SIGNALS[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGPIPE};

constexpr int OWN = STDERR_FILENO + 1;

// Gives back all other descriptors: the reader of a stream waits until the last copy is closed.
bool keep_only(int fd) {
  const int kept = fcntl(fd, F_DUPFD, OWN + 1);
  const int null = open("/dev/null", O_RDWR);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (dup2(null, stream) < 0) return false;
  }
  return dup2(kept, OWN) == OWN && close_range(OWN + 1, ~0U, 0) == 0;
}

[[noreturn]] void watch(int fd, const std::function<void()>& work) {
  for (const int signal : SIGNALS) std::signal(signal, SIG_IGN);
  setsid();
  if (!keep_only(fd) || chdir("/") != 0) _exit(1);
  char word = 0;
  if (TEMP_FAILURE_RETRY(read(OWN, &word, 1)) != 1) work();
  _exit(0);
}

}  // namespace

// A grandchild, so that the process has no child that it does not know of.
Witness::Witness(const std::function<void()>& work) {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) return;
  const Fd reading{ends[0]};
  alive_ = Fd{ends[1]};
  const pid_t child = fork();
  if (child == 0) {
    if (fork() != 0) _exit(0);
    alive_.reset();
    watch(reading.get(), work);
  }
  if (child > 0) std::ignore = TEMP_FAILURE_RETRY(waitpid(child, nullptr, 0));
}

// Without a reader, as where no process could be started, this must not end in a signal.
void Witness::release() {
  if (alive_) std::ignore = send(alive_.get(), &RELEASED, 1, MSG_NOSIGNAL);
  alive_.reset();
}

}  // namespace ormel::audit
