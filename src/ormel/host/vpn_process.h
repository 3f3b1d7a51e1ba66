// The running daemons of all tunnels, found in the process table.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

#include "base/types.h"

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
  // Classifies a process by its command line, words separated by NUL. The result is valid until
  // the next call.
  const Process& is_vpn_process(const std::string& cmdline, pid_t pid);
};

// Whether the daemon of a server runs: by its name, its argument and its owner, since anyone may
// start a program under any name. False for a type without a daemon.
[[nodiscard]] bool server_runs(TYPE server);

}  // namespace ormel::system
