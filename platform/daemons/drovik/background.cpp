#include "daemons/drovik/background.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/types.h>

namespace fenro::drovik {

bool Background::begin() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  const Fd listening{ends[0]};
  signal_ = Fd{ends[1]};
  const pid_t child = fork();
  if (child < 0) return false;
  if (child > 0) {
    signal_.reset();
    char byte = 0;
    _exit(TEMP_FAILURE_RETRY(read(listening.get(), &byte, 1)) == 1 ? 0 : 1);
  }
  return setsid() >= 0 && chdir("/") == 0;
}

void Background::ready() {
  const Fd null{open("/dev/null", O_RDWR | O_CLOEXEC)};
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null.get(), stream);
  const char byte = 1;
  if (write(signal_.get(), &byte, 1) != 1) return;  // the parent has gone
  signal_.reset();
}

}  // namespace fenro::drovik
