#include "ormel/host/vpn_process.h"

#include <algorithm>
#include <cctype>
#include <csignal>
#include <dirent.h>
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

// A process of the host, whose folder below /proc has its ID as name.
struct ProcessEntry {
  int proc;
  const char* id;

  // The first line of the command line; false when it cannot be read, as that of a process that
  // has just ended.
  bool read_cmdline(std::string& line) const {
    const Fd fd{openat(proc, (std::string(id) + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC)};
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
      // A file of /proc gives all it has at once; each read saved counts, for every process pays
      // for it.
      if (end != std::string_view::npos || piece.size() < sizeof chunk) return true;
    }
  }
};

// Stops where `each` returns false. The entries are read without opendir(), whose buffer of 32 KB
// is more memory than the rest of a short run takes.
template <typename Each>
void for_each_process(Each each) {
  const Fd proc{open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  alignas(dirent64) char entries[4096];
  ssize_t size = 0;
  while (proc && (size = getdents64(proc.get(), entries, sizeof entries)) > 0) {
    for (ssize_t at = 0; at < size;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(entries + at);
      at += entry->d_reclen;
      if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
      if (!each(ProcessEntry{proc.get(), entry->d_name})) return;
    }
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
  bool runs = false;
  if (!facts || !facts->server_daemon) return false;
  for_each_process([&, cmdline = std::string()](const ProcessEntry& entry) mutable {
    struct stat owner {};
    runs = entry.read_cmdline(cmdline) && is_daemon(cmdline, *facts) &&
           fstatat(entry.proc, entry.id, &owner, 0) == 0 && owner.st_uid == geteuid();
    return !runs;
  });
  return runs;
}

int VpnProcess::update() {
  for_each_process(
      [this, own = getpid(), cmdline = std::string()](const ProcessEntry& entry) mutable {
        const pid_t pid = to_int(entry.id);
        if (pid == 0 || pid == own || !entry.read_cmdline(cmdline)) return true;
        if (const Process& process = is_vpn_process(cmdline, pid); process.type != NONE_TYPE)
          processes.push_back(process);
        return true;
      });
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
