// The way from the web programs, which have no rights over networks, to the unit that starts
// tunnels.
//
//   fenro-tunnel call SCRIPT ARGUMENT...   asks for a start script: the caller gets its output
//                                          and its exit status
//   fenro-tunnel serve                     answers one such question on standard input, a socket
//
// What may be asked for is in one table. The caller must be root; the script gets its streams for
// its output and nothing else of it.
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <vector>

#include "base/argv.h"
#include "base/handle.h"

namespace {

using fenro::Fd;
using Words = std::vector<std::string>;

constexpr const char* SOCKET = "/run/fenro/tunnel.sock";
constexpr std::string_view FOLDER = "/etc/init.d/";
constexpr std::string_view JUDGE =
    "/usr/sbin/verify_ovpn.sh";  // it needs a network namespace for a daemon
constexpr std::string_view UPLOADS = "/tmp/";
constexpr int FAILED = 1;
constexpr int USAGE = 64;
constexpr int SIGNAL_BASE = 128;  // as a shell reports a program that a signal ended
constexpr std::size_t MAX_REQUEST = 4096;
constexpr time_t REQUEST_SECONDS = 5;

enum class Argument { None, Slot, Interface, TypeAndMaybeWho, TypeAndWho };

struct Row {
  std::string_view script, action;
  Argument argument = Argument::None;
};

constexpr std::array SERVERS{"vpn_pptp.sh", "vpn_l2tp.sh", "vpn_openvpn.sh", "vpn_drovik.sh",
                             "vpn_wireguard.sh"};
constexpr std::array SERVER_ACTIONS{"start", "stop", "restart", "status"};
constexpr Row ROWS[] = {
    {"vpn_pptp_client.sh", "start", Argument::Slot},
    {"vpn_pptp_client.sh", "stop", Argument::Slot},
    {"vpn_l2tp_client.sh", "start", Argument::Slot},
    {"vpn_l2tp_client.sh", "stop", Argument::Slot},
    {"vpn_openvpn_client.sh", "start", Argument::Slot},
    {"vpn_openvpn_client.sh", "stop", Argument::Slot},
    {"vpn_openvpn_client.sh", "redial", Argument::Slot},
    {"vpn_drovik_client.sh", "connect", Argument::Slot},
    {"vpn_drovik_client.sh", "disconnect", Argument::Slot},
    {"vpn_wireguard_client.sh", "start", Argument::Slot},
    {"vpn_wireguard_client.sh", "stop", Argument::Slot},
    {"vpn_wireguard_client.sh", "remove", Argument::Slot},
    {"vpn_wireguard.sh", "peers"},
    {"vpn_wireguard.sh", "handshakes"},
    {"vpn_wireguard.sh", "sync_peers"},
    {"vpn_common.sh", "setup_vpn_entrance"},
    {"vpn_common.sh", "add_vpnclient_profile", Argument::Interface},
    {"vpn_common.sh", "remove_vpnclient_profile", Argument::Interface},
    {"vpn_common.sh", "kick_all_connection", Argument::TypeAndMaybeWho},
    {"vpn_common.sh", "kick_one_connection", Argument::TypeAndWho},
    {"vpn_guard.sh", "apply"},
    {"vpn_guard.sh", "pause"},
    {"vpn_names.sh", "use", Argument::Interface},
    {"vpn_names.sh", "restore"},
    {"ormel_dump_log.sh", "dump_log"},
    {"pelmar_cloudagent.sh", "start"},
    {"pelmar_cloudagent.sh", "stop"},
    {"pelmar_cloudagent.sh", "remove_dummy_interface"},
    {"pelmar_cloudagent.sh", "remove_pelmar_configs"},
    {"pelmar_express.sh", "start"},
    {"pelmar_express.sh", "stop"},
    {"pelmar_express.sh", "reset_virtual_interface"},
    {"pelmar_express.sh", "remove_dummy_interface"},
    {"pelmar_express.sh", "remove_pelmar_configs"},
};

bool is_number(std::string_view text, int least, int most) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc{} && end == text.data() + text.size() && !text.starts_with('0') &&
         number >= least && number <= most;
}

bool is_interface(std::string_view text) {
  return !text.empty() && text.size() < 16 && std::ranges::all_of(text, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
  });
}

bool is_text(std::string_view text) {
  return std::ranges::none_of(text, [](char c) { return static_cast<unsigned char>(c) < ' '; });
}

bool arguments_fit(Argument kind, std::span<const std::string> words) {
  constexpr int MAX_SLOT = 32;
  constexpr int MAX_TYPE = 1 << 16;
  const bool type = !words.empty() && is_number(words[0], 1, MAX_TYPE);
  switch (kind) {
    case Argument::None: return words.empty();
    case Argument::Slot: return words.size() == 1 && is_number(words[0], 1, MAX_SLOT);
    case Argument::Interface: return words.size() == 1 && is_interface(words[0]);
    case Argument::TypeAndMaybeWho:
      return type && (words.size() == 1 || (words.size() == 2 && is_text(words[1])));
    case Argument::TypeAndWho: return type && words.size() == 2 && is_text(words[1]);
    default: return false;
  }
}

bool is_upload(std::string_view path) {
  return path.starts_with(UPLOADS) && path.find('/', UPLOADS.size()) == std::string_view::npos &&
         is_text(path);
}

bool is_allowed(const Words& words) {
  if (words.size() >= 2 && words[0] == JUDGE)
    return is_upload(words[1]) && (words.size() == 2 || (words.size() == 3 && is_text(words[2])));
  if (words.size() < 2 || !words[0].starts_with(FOLDER)) return false;
  const std::string_view script = std::string_view{words[0]}.substr(FOLDER.size());
  const std::span rest = std::span{words}.subspan(2);
  if (std::ranges::find(SERVERS, script) != SERVERS.end() &&
      std::ranges::find(SERVER_ACTIONS, words[1]) != SERVER_ACTIONS.end())
    return rest.empty();
  return std::ranges::any_of(ROWS, [&](const Row& row) {
    return row.script == script && row.action == words[1] && arguments_fit(row.argument, rest);
  });
}

bool peer_is_root(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == 0;
}

// The caller's streams for output, as they travel beside the words.
union Ancillary {
  std::array<char, CMSG_SPACE(2 * sizeof(int))> bytes;
  cmsghdr align;
};

bool send_request(int socket, const std::string& text) {
  const std::array<int, 2> streams{STDOUT_FILENO, STDERR_FILENO};
  Ancillary beside{};
  iovec part{const_cast<char*>(text.data()), text.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = beside.bytes.data();
  message.msg_controllen = beside.bytes.size();
  cmsghdr* const head = CMSG_FIRSTHDR(&message);
  head->cmsg_level = SOL_SOCKET;
  head->cmsg_type = SCM_RIGHTS;
  head->cmsg_len = CMSG_LEN(sizeof streams);
  std::memcpy(CMSG_DATA(head), streams.data(), sizeof streams);
  return sendmsg(socket, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

struct Request {
  Words words;
  Fd out, err;
};

bool receive_request(int socket, Request& request) {
  std::array<char, MAX_REQUEST> text{};
  Ancillary beside{};
  iovec part{text.data(), text.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = beside.bytes.data();
  message.msg_controllen = beside.bytes.size();
  const timeval patience{REQUEST_SECONDS, 0};
  if (setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0) return false;
  const ssize_t length = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
  const cmsghdr* const head = length > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
  if (!head || head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_RIGHTS) return false;
  std::array<int, 2> streams{-1, -1};
  std::memcpy(streams.data(), CMSG_DATA(head),
              std::min<std::size_t>(head->cmsg_len - CMSG_LEN(0), sizeof streams));
  request.out = Fd{streams[0]};
  request.err = Fd{streams[1]};
  std::string_view rest{text.data(), static_cast<std::size_t>(length)};
  if (!request.out || !request.err || rest.back() != '\0') return false;
  for (; !rest.empty(); rest.remove_prefix(request.words.back().size() + 1))
    request.words.emplace_back(rest.substr(0, rest.find('\0')));
  return true;
}

int run_script(Request& request) {
  const pid_t child = fork();
  if (child == 0) {
    const Fd nothing{open("/dev/null", O_RDONLY | O_CLOEXEC)};
    const std::vector<char*> argv = fenro::argv_of(request.words);
    char* const environment[] = {nullptr};
    if (dup2(nothing.get(), STDIN_FILENO) >= 0 && dup2(request.out.get(), STDOUT_FILENO) >= 0 &&
        dup2(request.err.get(), STDERR_FILENO) >= 0)
      execve(argv[0], argv.data(), environment);
    _exit(SIGNAL_BASE - 1);
  }
  int status = 0;
  while (child > 0 && waitpid(child, &status, 0) < 0)
    if (errno != EINTR) return FAILED;
  if (child < 0) return FAILED;
  return WIFEXITED(status) ? WEXITSTATUS(status) : SIGNAL_BASE + WTERMSIG(status);
}

int serve() {
  Request request;
  if (!peer_is_root(STDIN_FILENO) || !receive_request(STDIN_FILENO, request)) return FAILED;
  int status = USAGE;
  if (is_allowed(request.words)) {
    status = run_script(request);
  } else {
    dprintf(request.err.get(),
            "fenro-tunnel: not a script, an action or an index that may be asked for\n");
  }
  const auto byte = static_cast<unsigned char>(status);
  return send(STDIN_FILENO, &byte, sizeof byte, MSG_NOSIGNAL) == 1 ? 0 : FAILED;
}

int complain() {
  std::fprintf(stderr,
               "fenro-tunnel: the service that starts tunnels does not answer (%s). See: systemctl "
               "status fenro-tunnel.socket\n",
               std::strerror(errno));
  return FAILED;
}

// A program that is started without streams has none to pass on.
void open_missing_streams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
    if (fcntl(stream, F_GETFD) < 0)
      std::ignore = open("/dev/null", O_RDWR);  // takes the lowest free number
}

int call(std::span<char*> words) {
  open_missing_streams();
  std::string text;
  for (const char* word : words) text.append(word).push_back('\0');
  if (text.size() > MAX_REQUEST) return USAGE;
  const Fd socket{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, SOCKET, sizeof address.sun_path - 1);
  if (!socket ||
      connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      !send_request(socket.get(), text))
    return complain();
  unsigned char status = 0;
  ssize_t length = 0;
  while ((length = read(socket.get(), &status, sizeof status)) < 0)
    if (errno != EINTR) return complain();
  if (length == 1) return status;
  errno = ECONNRESET;
  return complain();
}

}  // namespace

int main(int argc, char** argv) {
  const std::span words{argv, static_cast<std::size_t>(argc)};
  const std::string_view mode = argc > 1 ? argv[1] : "";
  if (mode == "serve" && argc == 2) return serve();
  if (mode == "call" && argc > 3) return call(words.subspan(2));
  std::fputs("usage: fenro-tunnel call SCRIPT ARGUMENT... | serve\n", stderr);
  return USAGE;
}
