#include "ormel/drivers/openvpn/check.h"

#include <cerrno>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "ormel/host/process.h"

namespace ormel::system {

namespace {

constexpr const char* VERIFY_SCRIPT = "/usr/sbin/verify_ovpn.sh";

}  // namespace

bool verify_ovpn_config(char* a, char* b) {
  const std::vector<std::string> command{VERIFY_SCRIPT, a, b};
  const Argv argv(command);
  const pid_t pid = fork();
  if (pid == -1) return false;
  if (pid == 0) exec_detached(argv.get());
  int status = 0;
  if (TEMP_FAILURE_RETRY(waitpid(pid, &status, 0)) == -1) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace ormel::system
