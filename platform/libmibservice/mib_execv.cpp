// Runs a program and captures both of its streams. One poll serves the streams and the end of the program, so
// neither the order of the output nor a daemon that keeps the pipes can hold the caller.
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "common/handle.h"
#include "libmibservice/mib_io.h"

namespace fenro {
namespace {

constexpr int FIRST_FREE = STDERR_FILENO + 1;
constexpr int SIGNAL_BASE = 128;  // as the shell reports a program that a signal ended
constexpr int TICK_MS = 20;       // how often to look for the program's end on a kernel without pidfd
constexpr std::size_t CHUNK = std::size_t{64} << 10;

// A caller that ignores SIGCHLD, as some web servers leave it, would have its children reaped by the kernel and
// their exit status lost.
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

// The same open file above the standard descriptors, so that wiring one of these never overwrites another.
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

// The standard input as a file in memory: nothing has to be fed while the program runs, and one that never reads it
// costs neither a wait nor a SIGPIPE.
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

// The actions and attributes of the start: three wired streams and nothing else open, no signal blocked or ignored
// on our account.
class SpawnPlan {
 public:
  SpawnPlan() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;
  ~SpawnPlan() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }

  [[nodiscard]] pid_t start(char** argv, const Fd& in, const Fd& out, const Fd& err) {
    sigset_t none;
    sigset_t defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGCHLD);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setsigdefault(&attributes_, &defaults);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    posix_spawn_file_actions_adddup2(&actions_, in.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions_, out.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions_, err.get(), STDERR_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&actions_, FIRST_FREE);
    pid_t pid = -1;
    return posix_spawn(&pid, argv[0], &actions_, &attributes_, argv, environ) == 0 ? pid : -1;
  }

 private:
  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
};

// One captured stream: where it comes from and where it goes.
struct Stream {
  Fd from;
  mib_io* to;
  bool complete = true;

  void append(const char* bytes, std::size_t length) {
    if (to && mib_io_write(to, bytes, length) != static_cast<int>(length)) complete = false;
  }

  // Takes at most `limit` bytes; closes the stream at its end.
  void take(std::size_t limit) {
    std::array<char, CHUNK> chunk;  // not cleared: read fills what is used of it
    while (from && limit > 0) {
      const ssize_t n = read(from.get(), chunk.data(), std::min(limit, chunk.size()));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) return;
      if (n <= 0) return from.reset();
      append(chunk.data(), static_cast<std::size_t>(n));
      limit -= static_cast<std::size_t>(n);
    }
  }

  // What lies in the pipe now and not what a daemon left behind still writes into it.
  void drain() {
    int waiting = 0;
    if (from && ioctl(from.get(), FIONREAD, &waiting) == 0 && waiting > 0) take(static_cast<std::size_t>(waiting));
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
  while (!has_ended(pid)) {
    std::array<pollfd, 3> set{{{process.get(), POLLIN, 0}, {out.from.get(), POLLIN, 0}, {err.from.get(), POLLIN, 0}}};
    if (poll(set.data(), set.size(), process ? -1 : TICK_MS) <= 0) continue;
    if (set[1].revents != 0) out.take(CHUNK);
    if (set[2].revents != 0) err.take(CHUNK);
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

  const pid_t pid = SpawnPlan{}.start(argv, in, out_pipe.write, err_pipe.write);
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
