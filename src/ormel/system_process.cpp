#include "ormel/system_process.h"

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

#include "ormel/curl.h"
#include "ormel/error.h"
#include "ormel/handle.h"
#include "ormel/system_log.h"
#include "ormel/text.h"

namespace ormel::system {

namespace {

constexpr const char* GETCFG = "/sbin/getcfg";
constexpr const char* SETCFG = "/sbin/setcfg";
constexpr int KILL_ROUNDS = 10;  // seconds that a process is given to die
constexpr size_t COPY_CHUNK = 4096;

struct DaemonName {
  std::string_view name;  // base name of the program's first word
  TYPE type;
};

// WireGuard has no process.
constexpr DaemonName DAEMONS[] = {
    {"pptpd", PPTP_SERVER_TYPE},          //
    {"xl2tpd", L2TP_SERVER_TYPE},         //
    {"openvpn", OVPN_SERVER_TYPE},        //
    {"morvid", DROVIK_SERVER_TYPE},       //
    {"pppd-pptp", PPTP_CLIENT_TYPE},      //
    {"pppd-l2tp", L2TP_CLIENT_TYPE},      //
    {"openvpnclient", OVPN_CLIENT_TYPE},  //
    {"morvic", DROVIK_CLIENT_TYPE},
};

// Names the profile in the arguments of a client's daemon; the last "clientN" counts.
constexpr const char* CLIENT_INDEX = "^.*client([0-9]+).*";

TYPE type_of(std::string_view program) {
  program.remove_prefix(program.rfind('/') + 1);
  const auto* row = std::find_if(std::begin(DAEMONS), std::end(DAEMONS),
                                 [&](const DaemonName& daemon) { return daemon.name == program; });
  return row == std::end(DAEMONS) ? NONE_TYPE : row->type;
}

int index_in(std::string arguments) {
  static const Regex expression(CLIENT_INDEX);
  std::replace(arguments.begin(), arguments.end(), '\0', ' ');
  regmatch_t groups[2];
  if (!expression.search(arguments.c_str(), groups, std::size(groups))) return 0;
  return option::to_int(arguments.c_str() + groups[1].rm_so);
}

// The first line of a file in the folder; false when it cannot be read, as that of a process that has just ended.
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
    // A file of /proc gives all it has at once; each read saved counts, for every process pays for it.
    if (end != std::string_view::npos || piece.size() < sizeof chunk) return true;
  }
}

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

int VpnProcess::update() {
  const Dir proc{opendir("/proc")};
  if (!proc) return 0;
  std::string cmdline;
  while (const dirent* entry = readdir(proc.get())) {
    if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
    const pid_t pid = option::to_int(entry->d_name);
    if (pid == 0 || !first_line(dirfd(proc.get()), std::string(entry->d_name) + "/cmdline", cmdline)) continue;
    if (const Process& process = is_vpn_process(cmdline, pid); process.type != NONE_TYPE) processes.push_back(process);
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
  const auto found =
      std::find_if(processes.begin(), processes.end(), [&](const Process& process) { return process.pid == pid; });
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

int kill(pid_t pid, int signal) {
  if (const int rc = ::kill(pid, signal); rc != 0) return rc;
  const std::string path = "/proc/" + std::to_string(pid);
  struct stat status {};
  for (int round = 0; round < KILL_ROUNDS && lstat(path.c_str(), &status) == 0; ++round) sleep(1);
  return 0;
}

bool regular_file(const char* path) {
  struct stat status {};
  return lstat(path, &status) == 0 && S_ISREG(status.st_mode);
}

bool executable_file(const char* path) {
  struct stat status {};
  return lstat(path, &status) == 0 && (status.st_mode & S_IXUSR) != 0;
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
  if (wait_for(pid, status) != 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return ERR_BACKGROUND_PROCESS;
  sleep(1);
  return NO_ERROR;
}

Argv::Argv(const std::vector<std::string>& arguments) {
  pointers_.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) pointers_.push_back(const_cast<char*>(argument.c_str()));
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

bool move_file(const char* from, const char* to, unsigned int mode) {
  const Fd source{open(from, O_RDONLY | O_CLOEXEC)};
  const Fd target{open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode)};
  if (!source || !target) return false;
  while (sendfile(target.get(), source.get(), nullptr, COPY_CHUNK) > 0) continue;
  return unlink(from) == 0;
}

bool write_file(const std::string& content, const char* path, unsigned int mode) {
  const Fd fd{open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode)};
  if (!fd) return false;
  if (write(fd.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size())) return true;
  unlink(path);
  return false;
}

bool write_all(int fd, std::string_view content) {
  while (!content.empty()) {
    const ssize_t put = TEMP_FAILURE_RETRY(write(fd, content.data(), content.size()));
    if (put <= 0) return false;
    content.remove_prefix(static_cast<size_t>(put));
  }
  return true;
}

bool replace_file(const std::string& path, const std::string& content, unsigned int mode) {
  const std::string temporary = path + ".tmp";
  unlink(temporary.c_str());  // one that a crash left may have another mode
  const Fd fd{open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode)};
  if (fd && write_all(fd.get(), content) && fsync(fd.get()) == 0 && rename(temporary.c_str(), path.c_str()) == 0)
    return true;
  unlink(temporary.c_str());
  return false;
}

int decode_urlEncoded(const std::string& text, std::string& out) {
  return curl::unescape(text, out) ? NO_ERROR : ERR_CURL_FAIL;
}

void invoke_vpn_script(const std::string& script, const std::string& action) {
  ORMEL_LOG(INFO, "Invoke VPN script by %s %s\n", script.c_str(), action.c_str());
  std::string output;
  if (do_exec_safe({script, action}, output) != 0) {
    ORMEL_LOG(ERROR, "Fail to %s VPN by %s, output: %s\n", action.c_str(), script.c_str(), output.c_str());
  }
}

int getcfg_wrapper(const std::string& file, const std::string& section, const std::string& key,
                   const std::string& fallback, std::string& out) {
  // A tool that fails although there is a default has nothing better to say than that default.
  if (do_exec_safe({GETCFG, section, key, "-f", file, "-d", fallback}, out) != 0 && fallback.empty()) {
    return ERR_CMD_FAILED;
  }
  out.erase(std::remove(out.begin(), out.end(), '\n'), out.end());
  if (out.empty()) out = fallback;
  return NO_ERROR;
}

int setcfg_wrapper(const std::string& file, const std::string& section, const std::string& key,
                   const std::string& value) {
  std::string output;
  return do_exec_safe({SETCFG, section, key, value, "-f", file}, output) == 0 ? NO_ERROR : ERR_CMD_FAILED;
}

}  // namespace ormel::system
