// Programs: started detached, waited for, or with their output captured.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace ormel::system {

// Sends `signal` and waits up to 10 seconds for the process to be gone. 0, or the result of
// kill(2).
int kill(pid_t pid, int signal);

// Starts a program detached. 0 or ERR_BACKGROUND_PROCESS; a program that cannot be started is not
// noticed.
int background(char* const* argv);
int background(const std::vector<std::string>& argv);

// Runs a program with its streams on /dev/null and waits for it; one second more after a success,
// for the tunnel to settle. 0 or ERR_BACKGROUND_PROCESS, which includes a non-zero exit status and
// a death by signal.
int foreground(char* const* argv);
int foreground(const std::vector<std::string>& argv);

// The inner step of `background`: makes the program a grandchild that need not be reaped. -1 if
// it could not fork.
int avoid_zombie(char* const* argv);

// The child's side: streams on /dev/null, no umask, root folder, then the program. Does not return.
[[noreturn]] void exec_detached(char* const* argv);

// Runs a shell command and appends its output to `out`. -1 if it could not start. Fixed texts only.
int do_exec(const char* command, std::string& out);

// Runs a program without a shell; `out` takes its standard output if it ends with status 0, else it
// is empty. The result of mib_io_execv.
int do_exec_safe(const std::vector<std::string>& argv, std::string& out);

// Runs an init script with one argument and logs both the call and a failure.
void invoke_vpn_script(const std::string& script, const std::string& action);

// Init script of what all protocols share.
constexpr const char* COMMON_SCRIPT = "/etc/init.d/vpn_common.sh";

// A null-closed vector of arguments over strings that stay the caller's.
class Argv {
 public:
  explicit Argv(const std::vector<std::string>& arguments);
  [[nodiscard]] char* const* get() const { return pointers_.data(); }
  [[nodiscard]] char** get() { return pointers_.data(); }

 private:
  std::vector<char*> pointers_;
};

}  // namespace ormel::system
