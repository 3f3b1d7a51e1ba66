#include "ormel/host/process.h"

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string_view>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ormel/base/error.h"
#include "ormel/base/handle.h"
#include "ormel/base/log.h"

namespace ormel::system {

namespace {

constexpr int KILL_ROUNDS = 10;  // seconds that a process is given to die

int wait_for(pid_t pid, int& status) {
  return TEMP_FAILURE_RETRY(waitpid(pid, &status, 0)) == -1 ? -1 : 0;
}

bool put_on_null() {
  const int null = open("/dev/null", O_WRONLY);
  if (null < 0) return false;
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fd != null) dup2(null, fd);
  }
  if (null > STDERR_FILENO) close(null);
  return true;
}

}  // namespace

int kill(pid_t pid, int signal) {
  if (const int rc = ::kill(pid, signal); rc != 0) return rc;
  const std::string path = "/proc/" + std::to_string(pid);
  struct stat status {};
  for (int round = 0; round < KILL_ROUNDS && lstat(path.c_str(), &status) == 0; ++round) sleep(1);
  return 0;
}

void exec_detached(char* const* argv) {
  if (!put_on_null()) _exit(1);
  umask(0);
  if (chdir("/") != 0) _exit(1);
  execv(argv[0], argv);
  _exit(1);
}

int avoid_zombie(char* const* argv) {
  const pid_t pid = fork();
  if (pid == -1) return -1;
  // Without exit(): what the parent has buffered for its streams is the parent's to write.
  if (pid > 0) _exit(0);
  exec_detached(argv);
}

int background(char* const* argv) {
  const pid_t pid = fork();
  if (pid == -1) return ERR_BACKGROUND_PROCESS;
  if (pid == 0) {
    if (avoid_zombie(argv) == -1) _exit(1);
  }
  int status = 0;
  if (waitpid(0, &status, WNOHANG) == -1) return ERR_BACKGROUND_PROCESS;
  return WEXITSTATUS(status) == 0 ? NO_ERROR : ERR_BACKGROUND_PROCESS;
}

int foreground(char* const* argv) {
  const pid_t pid = fork();
  if (pid == -1) return ERR_BACKGROUND_PROCESS;
  if (pid == 0) exec_detached(argv);
  int status = 0;
  if (wait_for(pid, status) != 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return ERR_BACKGROUND_PROCESS;
  sleep(1);
  return NO_ERROR;
}

Argv::Argv(const std::vector<std::string>& arguments) {
  pointers_.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments)
    pointers_.push_back(const_cast<char*>(argument.c_str()));
  pointers_.push_back(nullptr);
}

int background(const std::vector<std::string>& argv) {
  return background(Argv(argv).get());
}
int foreground(const std::vector<std::string>& argv) {
  return foreground(Argv(argv).get());
}

int do_exec(const char* command, std::string& out) {
  const Pipe pipe{popen(command, "re")};
  if (!pipe) return -1;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, pipe.get())) out += buffer;
  return 0;
}

int do_exec_safe(const std::vector<std::string>& argv, std::string& out) {
  out.clear();
  const MibIo output{mib_io_create()};
  const MibIo errors{mib_io_create()};
  const int rc = mib_io_execv(nullptr, output.get(), errors.get(), Argv(argv).get());
  if (rc == 0) {
    size_t length = 0;
    if (const char* text = mib_io_read(output.get(), &length)) out.assign(text, length);
  }
  return rc;
}

void invoke_vpn_script(const std::string& script, const std::string& action) {
  ORMEL_LOG(INFO, "Invoke VPN script by %s %s\n", script.c_str(), action.c_str());
  std::string output;
  if (do_exec_safe({script, action}, output) != 0) {
    ORMEL_LOG(ERROR, "Fail to %s VPN by %s, output: %s\n", action.c_str(), script.c_str(),
              output.c_str());
  }
}

}  // namespace ormel::system
