// All that the system does to the host: programs started detached, waited for or with their output captured, and the
// running tunnel daemons found.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "ormel/types.h"

namespace ormel::system {

// One running tunnel process.
struct Process {
  int index = 0;          // slot of the client profile, 0 for a server
  pid_t pid = 0;          //
  TYPE type = NONE_TYPE;  // NONE_TYPE: not one of ours
};

// The tunnel daemons that run at the moment of `update`.
class VpnProcess {
 public:
  std::vector<Process> processes;

  // Scans the process table. 0; also when it cannot be read.
  int update();
  // The process of a profile, 0 if none.
  [[nodiscard]] pid_t pidof(TYPE type, int index) const;
  // Sends SIGUSR2 to a known process and forgets it.
  void kill(pid_t pid);
  // Classifies a process by its command line, words parted by NUL. The result lives until the next call.
  const Process& is_vpn_process(const std::string& cmdline, pid_t pid);
};

// Sends `signal` and waits up to 10 seconds for the process to be gone. 0, or the result of kill(2).
int kill(pid_t pid, int signal);

// The path itself, not what a link points to, is a regular file / has its owner's execute bit set.
[[nodiscard]] bool regular_file(const char* path);
[[nodiscard]] bool executable_file(const char* path);

// Starts a program detached. 0 or ERR_BACKGROUND_PROCESS; a program that cannot be started is not noticed.
int background(char* const* argv);
int background(const std::vector<std::string>& argv);

// Runs a program with its streams on /dev/null and waits for it; one second more after a success, for the tunnel to
// settle. 0 or ERR_BACKGROUND_PROCESS, which includes a non-zero exit status and a death by signal.
int foreground(char* const* argv);
int foreground(const std::vector<std::string>& argv);

// The inner step of `background`: makes the program a grandchild that nobody must reap. -1 if it could not fork.
int avoid_zombie(char* const* argv);

// The child's side: streams on /dev/null, no umask, root folder, then the program. Does not return.
[[noreturn]] void exec_detached(char* const* argv);

// Runs a shell command and appends its output to `out`. -1 if it could not start. Fixed texts only.
int do_exec(const char* command, std::string& out);

// Runs a program without a shell; `out` takes its standard output if it ends with status 0, else it is empty.
// The result of mib_io_execv.
int do_exec_safe(const std::vector<std::string>& argv, std::string& out);

// Copies a file and deletes the original. Whether the original is gone.
bool move_file(const char* from, const char* to, unsigned int mode);

// Writes `content` to a file, created with `mode`; a file that took less is deleted. Whether all was written.
bool write_file(const std::string& content, const char* path, unsigned int mode);

// Writes all of `content`, going on after interruptions and short writes. Whether it could.
[[nodiscard]] bool write_all(int fd, std::string_view content);

// Puts `content` in the place of a file, whole or not at all, by way of a file beside it. Whether it is there.
[[nodiscard]] bool replace_file(const std::string& path, const std::string& content, unsigned int mode);

// Undoes URL encoding. 0 or ERR_CURL_FAIL.
[[nodiscard]] int decode_urlEncoded(const std::string& text, std::string& out);

// Runs an init script with one argument and logs both the call and a failure.
void invoke_vpn_script(const std::string& script, const std::string& action);

// One key of an INI file. `out` without line feeds, `fallback` when the value is empty. 0, or ERR_CMD_FAILED: for a key
// that is missing only if `fallback` is empty.
int getcfg_wrapper(const std::string& file, const std::string& section, const std::string& key,
                   const std::string& fallback, std::string& out);
int setcfg_wrapper(const std::string& file, const std::string& section, const std::string& key,
                   const std::string& value);

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
