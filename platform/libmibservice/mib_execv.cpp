// Runs a program and captures both of its streams. One poll serves the streams and the program's
// end, so neither the order of the output nor a daemon that keeps the pipes open can block the
// caller.
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/handle.h"
#include "libmibservice/mib_io.h"

namespace fenro {
namespace {

constexpr int FIRST_FREE = STDERR_FILENO + 1;
constexpr int SIGNAL_BASE = 128;  // as the shell reports a program that a signal ended
constexpr int TICK_MS = 20;  // how often to look for the program's end on a kernel without pidfd
constexpr std::size_t CHUNK = std::size_t{4} << 10;

// A caller that ignores SIGCHLD, as some web servers leave it, would have its children reaped by
// the kernel and their exit status lost.
class ReapableChildren {
 public:
  ReapableChildren() {
    if (sigaction(SIGCHLD, nullptr, &old_) != 0) return;
    lost_ = old_.sa_handler == SIG_IGN || (old_.sa_flags & SA_NOCLDWAIT) != 0;
    struct sigaction plain {};
    plain.sa_handler = SIG_DFL;
    if (lost_) sigaction(SIGCHLD, &plain, nullptr);
  }
  ReapableChildren(const ReapableChildren&) = delete;
  ReapableChildren& operator=(const ReapableChildren&) = delete;
  ~ReapableChildren() {
    if (lost_) sigaction(SIGCHLD, &old_, nullptr);
  }

 private:
  struct sigaction old_ {};
  bool lost_ = false;
};

// Duplicates a descriptor above the standard ones, so that redirecting one never overwrites
// another.
Fd raised(Fd fd) {
  if (!fd || fd.get() >= FIRST_FREE) return fd;
  return Fd{fcntl(fd.get(), F_DUPFD_CLOEXEC, FIRST_FREE)};
}

struct Pipe {
  Fd read, write;

  [[nodiscard]] bool open() {
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    Fd first{ends[0]};
    Fd second{ends[1]};
    read = raised(std::move(first));
    write = raised(std::move(second));
    return read && write && fcntl(read.get(), F_SETFL, O_NONBLOCK) == 0;
  }
};

// Provides the standard input as a file in memory. Nothing must be written while the program
// runs, and a program that never reads it causes neither a wait nor a SIGPIPE.
Fd input_of(const mib_io* io) {
  if (!io) return raised(Fd{open("/dev/null", O_RDONLY | O_CLOEXEC)});
  Fd file = raised(Fd{memfd_create("stdin", MFD_CLOEXEC)});
  std::size_t done = 0;
  while (file && done < io->bytes.size()) {
    const ssize_t n = write(file.get(), io->bytes.data() + done, io->bytes.size() - done);
    if (n < 0 && errno != EINTR) return Fd{};
    if (n > 0) done += static_cast<std::size_t>(n);
  }
  if (file && lseek(file.get(), 0, SEEK_SET) != 0) return Fd{};
  return file;
}

constexpr int NOT_STARTED = 127;
constexpr std::size_t CHILD_STACK = std::size_t{32} << 10;

// What a child needs of its parent, whose memory it shares until it is another program.
struct Launch {
  char** argv;
  int in, out, err;
  int error = 0;  // why it did not become that program
};

// Puts the signals back whose handlers are the parent's: one that runs in the child would work on
// the parent's memory. Of those that the parent ignores the program inherits all but two.
void reset_signals() {
  for (const int signal :
       {SIGHUP, SIGINT, SIGQUIT, SIGALRM, SIGTERM, SIGUSR1, SIGUSR2, SIGPIPE, SIGCHLD}) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_DFL) continue;
    if (action.sa_handler == SIG_IGN && signal != SIGPIPE && signal != SIGCHLD) continue;
    action = {};
    action.sa_handler = SIG_DFL;
    sigaction(signal, &action, nullptr);
  }
}

// The child: three redirected streams and no other open descriptor, no signal blocked, then the
// program.
__attribute__((no_sanitize("address"))) int become_program(void* argument) {
  auto& launch = *static_cast<Launch*>(argument);
  reset_signals();
  if (dup2(launch.in, STDIN_FILENO) >= 0 && dup2(launch.out, STDOUT_FILENO) >= 0 &&
      dup2(launch.err, STDERR_FILENO) >= 0) {
    closefrom(FIRST_FREE);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    execve(launch.argv[0], launch.argv, environ);
  }
  launch.error = errno;
  _exit(NOT_STARTED);
}

// Returns the process, -1 when the program cannot be run. The C library's own function for this
// asks for the handler of each of the 64 signals and sets most of them, which costs more calls than
// all the rest of a start.
pid_t start(char** argv, const Fd& in, const Fd& out, const Fd& err) {
  Launch launch{argv, in.get(), out.get(), err.get()};
  alignas(std::max_align_t) std::array<char, CHILD_STACK>
      stack;  // the caller's own waits: CLONE_VFORK
  sigset_t all;
  sigset_t old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  const pid_t pid =
      clone(become_program, stack.data() + stack.size(), CLONE_VM | CLONE_VFORK | SIGCHLD, &launch);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  if (pid < 0 || launch.error == 0) return pid;
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) continue;
  return -1;
}

// One captured stream: its source and its destination.
struct Stream {
  Fd from;
  mib_io* to;
  bool complete = true;

  void append(const char* bytes, std::size_t length) {
    if (to && mib_io_write(to, bytes, length) != static_cast<int>(length)) complete = false;
  }

  // Reads at most `limit` bytes; closes the stream at its end.
  void take(std::size_t limit) {
    std::array<char, CHUNK> chunk;  // not cleared: read fills what is used of it
    while (from && limit > 0) {
      const ssize_t n = read(from.get(), chunk.data(), std::min(limit, chunk.size()));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) return;
      if (n <= 0) return from.reset();
      const auto length = static_cast<std::size_t>(n);
      append(chunk.data(), length);
      if (length < std::min(limit, chunk.size())) return;  // that was all there is now
      limit -= length;
    }
  }

  // Reads what is in the pipe now, not what a surviving daemon still writes into it.
  void drain() {
    int waiting = 0;
    if (from && ioctl(from.get(), FIONREAD, &waiting) == 0 && waiting > 0)
      take(static_cast<std::size_t>(waiting));
  }
};

bool has_ended(pid_t pid) {
  siginfo_t info{};
  const int rc = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT);
  return rc != 0 ? errno != EINTR : info.si_pid == pid;
}

// Reads both streams until the program has ended.
void capture(pid_t pid, Stream& out, Stream& err) {
  const Fd process{static_cast<int>(syscall(SYS_pidfd_open, pid, 0))};
  for (bool ended = false; !ended;) {
    std::array<pollfd, 3> set{
        {{process.get(), POLLIN, 0}, {out.from.get(), POLLIN, 0}, {err.from.get(), POLLIN, 0}}};
    const int ready = poll(set.data(), set.size(), process ? -1 : TICK_MS);
    if (ready > 0 && set[1].revents != 0) out.take(CHUNK);
    if (ready > 0 && set[2].revents != 0) err.take(CHUNK);
    ended = process ? ready > 0 && set[0].revents != 0 : has_ended(pid);
  }
  out.drain();
  err.drain();
}

int result_of(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) return -1;
  return WIFSIGNALED(status) ? SIGNAL_BASE + WTERMSIG(status) : WEXITSTATUS(status);
}

int run(const mib_io* input, mib_io* out, mib_io* err, char** argv) {
  const ReapableChildren reapable;
  Pipe out_pipe;
  Pipe err_pipe;
  Fd in = input_of(input);
  if (!in || !out_pipe.open() || !err_pipe.open()) return -1;

  const pid_t pid = start(argv, in, out_pipe.write, err_pipe.write);
  if (pid < 0) return -1;
  in.reset();
  out_pipe.write.reset();
  err_pipe.write.reset();

  Stream out_stream{std::move(out_pipe.read), out};
  Stream err_stream{std::move(err_pipe.read), err};
  capture(pid, out_stream, err_stream);
  const int result = result_of(pid);
  return out_stream.complete && err_stream.complete ? result : -1;
}

}  // namespace
}  // namespace fenro

int mib_io_execv(void* context, mib_io* out, mib_io* err, char** argv) {
  if (!argv || !argv[0]) return -1;
  return fenro::run(static_cast<const mib_io*>(context), out, err, argv);
}
