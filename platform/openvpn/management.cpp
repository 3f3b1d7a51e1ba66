#include "openvpn/management.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace fenro::openvpn {
namespace {

constexpr std::size_t LONGEST_LINE = std::size_t{64} << 10;

template <typename Address>
Fd connected(int family, const Address& address) {
  Fd fd{socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  if (fd && connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    fd.reset();
  return fd;
}

bool trusted_peer(const Fd& fd) {
  ucred peer{};
  socklen_t length = sizeof peer;
  return getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
         (peer.uid == 0 || peer.uid == geteuid());
}

}  // namespace

Management Management::at_socket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return Management{Fd{}};
  path.copy(address.sun_path, path.size());
  Fd fd = connected(AF_UNIX, address);
  if (fd && !trusted_peer(fd)) fd.reset();
  return Management{std::move(fd)};
}

Management Management::at_port(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return Management{connected(AF_INET, address)};
}

Management Management::accepted(int listener) {
  constexpr timeval PATIENCE{1, 0};
  Fd fd{static_cast<int>(TEMP_FAILURE_RETRY(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)))};
  if (fd && !trusted_peer(fd)) fd.reset();
  if (fd) setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &PATIENCE, sizeof PATIENCE);
  return Management{std::move(fd)};
}

bool Management::say(std::string_view command) {
  std::string line{command};
  line += '\n';
  for (std::string_view rest = line; !rest.empty();) {
    const ssize_t sent =
        TEMP_FAILURE_RETRY(send(fd_.get(), rest.data(), rest.size(), MSG_NOSIGNAL));
    if (sent <= 0) return false;
    rest.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

std::optional<std::string> Management::next() {
  const std::size_t end = heard_.find('\n');
  if (end == std::string::npos) return {};
  std::string line = heard_.substr(0, end);
  heard_.erase(0, end + 1);
  if (line.ends_with('\r')) line.pop_back();
  return line;
}

void Management::fill() {
  char piece[4096];
  const ssize_t got = TEMP_FAILURE_RETRY(recv(fd_.get(), piece, sizeof piece, 0));
  closed_ = got <= 0 || heard_.size() > LONGEST_LINE;
  if (!closed_) heard_.append(piece, static_cast<std::size_t>(got));
}

std::optional<std::string> Management::hear(int seconds) {
  constexpr int MILLISECONDS = 1000;
  for (;;) {
    if (auto line = next()) return line;
    pollfd waiting{fd_.get(), POLLIN, 0};
    const int patience = seconds > 0 ? seconds * MILLISECONDS : -1;
    if (closed_ || TEMP_FAILURE_RETRY(poll(&waiting, 1, patience)) <= 0) return {};
    fill();
  }
}

}  // namespace fenro::openvpn
