#include "ormel/host/vpn_process.h"

#include <algorithm>
#include <cctype>
#include <csignal>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "base/tunnel.h"
#include "ormel/base/handle.h"
#include "ormel/base/text.h"

namespace ormel::system {

namespace {

// Names the profile in the arguments of a client's daemon; the last "clientN" counts.
constexpr const char* CLIENT_INDEX = "^.*client([0-9]+).*";

TYPE type_of(std::string_view program) {
  program.remove_prefix(program.rfind('/') + 1);
  for (const TunnelFacts& facts : TUNNELS) {
    if (facts.server_daemon && program == facts.server_daemon) return facts.server;
    if (facts.client_daemon && program == facts.client_daemon) return facts.client;
  }
  return NONE_TYPE;
}

int index_in(std::string arguments) {
  static const Regex expression(CLIENT_INDEX);
  std::replace(arguments.begin(), arguments.end(), '\0', ' ');
  regmatch_t groups[2];
  if (!expression.search(arguments.c_str(), groups, std::size(groups))) return 0;
  return to_int(arguments.c_str() + groups[1].rm_so);
}

// The first line of a file in the folder; false when it cannot be read, as that of a process that
// has just ended.
bool first_line(int folder, const std::string& path, std::string& line) {
  const Fd fd{openat(folder, path.c_str(), O_RDONLY | O_CLOEXEC)};
  if (!fd) return false;
  line.clear();
  char chunk[4096];
  for (;;) {
    const ssize_t got = TEMP_FAILURE_RETRY(read(fd.get(), chunk, sizeof chunk));
    if (got < 0) return false;
    if (got == 0) return true;
    const std::string_view piece(chunk, static_cast<size_t>(got));
    const size_t end = piece.find('\n');
    line += piece.substr(0, end);
    // A file of /proc gives all it has at once; each read saved counts, for every process pays for
    // it.
    if (end != std::string_view::npos || piece.size() < sizeof chunk) return true;
  }
}

bool is_daemon(std::string_view cmdline, const TunnelFacts& facts) {
  const size_t end = std::min(cmdline.find('\0'), cmdline.size());
  std::string_view program = cmdline.substr(0, end);
  program.remove_prefix(program.rfind('/') + 1);
  if (program != facts.server_daemon) return false;
  const std::string argument = std::string(1, '\0') + facts.server_argument + '\0';
  return cmdline.substr(end).find(argument) != std::string_view::npos;
}

}  // namespace

bool server_runs(TYPE server) {
  const TunnelFacts* const facts = find_tunnel(server);
  const Dir proc{facts && facts->server_daemon ? opendir("/proc") : nullptr};
  std::string cmdline;
  while (const dirent* entry = proc ? readdir(proc.get()) : nullptr) {
    if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0])) ||
        !first_line(dirfd(proc.get()), std::string(entry->d_name) + "/cmdline", cmdline))
      continue;
    struct stat owner {};
    if (is_daemon(cmdline, *facts) && fstatat(dirfd(proc.get()), entry->d_name, &owner, 0) == 0 &&
        owner.st_uid == geteuid())
      return true;
  }
  return false;
}

int VpnProcess::update() {
  const Dir proc{opendir("/proc")};
  if (!proc) return 0;
  std::string cmdline;
  while (const dirent* entry = readdir(proc.get())) {
    if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
    const pid_t pid = to_int(entry->d_name);
    if (pid == 0 ||
        !first_line(dirfd(proc.get()), std::string(entry->d_name) + "/cmdline", cmdline))
      continue;
    if (const Process& process = is_vpn_process(cmdline, pid); process.type != NONE_TYPE)
      processes.push_back(process);
  }
  return 0;
}

pid_t VpnProcess::pidof(TYPE type, int index) const {
  for (const Process& process : processes) {
    if (process.type == type && process.index == index) return process.pid;
  }
  return 0;
}

void VpnProcess::kill(pid_t pid) {
  const auto found = std::find_if(processes.begin(), processes.end(),
                                  [&](const Process& process) { return process.pid == pid; });
  if (found == processes.end()) return;
  ::kill(pid, SIGUSR2);
  processes.erase(found);
}

const Process& VpnProcess::is_vpn_process(const std::string& cmdline, pid_t pid) {
  static Process result;
  result = {0, pid, NONE_TYPE};
  const size_t end = std::min(cmdline.find('\0'), cmdline.size());
  result.type = type_of(std::string_view(cmdline).substr(0, end));
  if (is_client(result.type)) result.index = index_in(cmdline.substr(end));
  return result;
}

}  // namespace ormel::system
