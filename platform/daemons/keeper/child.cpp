#include "daemons/keeper/child.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

#include "base/argv.h"

namespace fenro::keeper {
namespace {

constexpr int SIGNAL_BASE = 128;
constexpr int NOT_FOUND = 127;
constexpr std::size_t TAIL = 1024;  // bytes of the output in which the last line is looked for

// The end of a text, from its last line break on.
std::string last_line(std::string text) {
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text.substr(text.rfind('\n') + 1);
}

struct Attributes {
  posix_spawnattr_t attributes{};
  posix_spawn_file_actions_t files{};
  Attributes() {
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&files);
  }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  ~Attributes() {
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
  }
};

}  // namespace

Child::Child(std::vector<std::string> words) : output_(memfd_create("output", MFD_CLOEXEC)) {
  Attributes spawn;
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&spawn.attributes, &none);
  posix_spawnattr_setsigdefault(&spawn.attributes, &all);
  posix_spawnattr_setflags(&spawn.attributes,
                           POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawn_file_actions_addopen(&spawn.files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&spawn.files, output_.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&spawn.files, output_.get(), STDERR_FILENO);
  static char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
  std::array<char*, 2> environment{path, nullptr};
  std::vector<char*> argv = argv_of(words);
  if (!output_ || posix_spawn(&pid_, argv[0], &spawn.files, &spawn.attributes, argv.data(),
                              environment.data()) != 0)
    pid_ = -1;
}

Ended Child::result(int status) {
  std::array<char, TAIL> bytes{};
  const off_t size = lseek(output_.get(), 0, SEEK_END);
  const off_t from = size > static_cast<off_t>(TAIL) ? size - static_cast<off_t>(TAIL) : 0;
  const ssize_t length = pread(output_.get(), bytes.data(), bytes.size(), from);
  pid_ = -1;
  return {WIFEXITED(status) ? WEXITSTATUS(status) : SIGNAL_BASE + WTERMSIG(status),
          last_line({bytes.data(), length > 0 ? static_cast<std::size_t>(length) : 0})};
}

std::optional<Ended> Child::poll() {
  if (pid_ <= 0) return Ended{NOT_FOUND};
  int status = 0;
  const pid_t got = waitpid(pid_, &status, WNOHANG);
  if (got == 0 || (got < 0 && errno == EINTR)) return {};
  return result(got == pid_ ? status : NOT_FOUND << 8);
}

Ended Child::wait() {
  if (pid_ <= 0) return {NOT_FOUND};
  int status = NOT_FOUND << 8;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) continue;
  return result(status);
}

}  // namespace fenro::keeper
