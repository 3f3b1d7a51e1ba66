#include <cstdlib>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <fenro/conf.h>

#include "base/tunnel.h"
#include "ormel/base/crypto.h"
#include "ormel/base/handle.h"
#include "ormel/base/lines.h"
#include "ormel/base/text.h"
#include "ormel/config/pool.h"
#include "ormel/drivers/openvpn/openvpn.h"

namespace ormel::ovpn {

namespace {

constexpr size_t MAX_VALUE =
    1024;  // bytes of a stored credential that are read, the closing NUL included
constexpr size_t MAX_REPLY = 4096;
constexpr timeval REPLY_TIMEOUT{60, 0};
constexpr std::string_view QUIT = "quit\n";

std::string stored_value(const std::string& section, const char* key) {
  char buffer[MAX_VALUE];
  Get_Private_Profile_String(section.c_str(), key, "", buffer, sizeof buffer, config::VPN_CONF);
  return buffer;
}

// The folder of the socket is open to everyone: what listens there must be root's, or our own.
bool trusted_peer(int fd) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
  return peer.uid == 0 || peer.uid == geteuid();
}

Fd connect_daemon(int index) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = management_socket(index);
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  Fd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  if (!fd) return fd;
  // Before the connection too: the owner of a socket there need not take it.
  for (const int direction : {SO_SNDTIMEO, SO_RCVTIMEO}) {
    setsockopt(fd.get(), SOL_SOCKET, direction, &REPLY_TIMEOUT, sizeof REPLY_TIMEOUT);
  }
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return Fd{};
  return trusted_peer(fd.get()) ? std::move(fd) : Fd{};
}

ssize_t receive(int fd) {
  char reply[MAX_REPLY];
  return TEMP_FAILURE_RETRY(recv(fd, reply, sizeof reply, 0));
}

bool tell(int fd, std::string_view command) {
  const ssize_t sent = TEMP_FAILURE_RETRY(send(fd, command.data(), command.size(), MSG_NOSIGNAL));
  return sent == static_cast<ssize_t>(command.size());
}

std::string credential(const char* kind, const std::string& value) {
  return std::string(kind) + " Auth \"" + escap(value) + "\"\n";
}

bool log_in(int index) {
  const std::string section = tunnel_of(OVPN_CLIENT_TYPE).client_section + std::to_string(index);
  const std::string user = stored_value(section, "Name");
  const std::string pass = openssl::base64_decode(stored_value(section, "AccessCode"));
  if (!one_line(user) || !one_line(pass)) return false;
  const Fd fd = connect_daemon(index);
  if (!fd || receive(fd.get()) <= 0) return false;
  for (const std::string& command : {credential("username", user), credential("password", pass)}) {
    if (!tell(fd.get(), command) || receive(fd.get()) <= 0) return false;
  }
  return tell(fd.get(), QUIT) && receive(fd.get()) >= 0;  // the daemon just closes
}

}  // namespace

std::string management_socket(int index) {
  return "/tmp/openvpn.client" + std::to_string(index) + ".sock";
}

std::string escap(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

void cauth(int argc, char** argv) {
  const int index = argc > 1 ? to_int(argv[1]) : 0;
  std::exit(index != 0 && log_in(index) ? EXIT_SUCCESS : EXIT_FAILURE);
}

}  // namespace ormel::ovpn
