#include "openvpn/login_socket.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <tuple>
#include <unistd.h>

namespace fenro::openvpn {
namespace {

constexpr std::string_view GREETING = ">INFO:OpenVPN Management Interface";
constexpr std::string_view QUESTION = ">PASSWORD:Need 'Auth'";
constexpr std::string_view TAKEN = "SUCCESS: 'Auth'";
constexpr std::string_view PASSWORD_TAKEN = "SUCCESS: 'Auth' password";
constexpr std::string_view REFUSED = "ERROR:";
constexpr mode_t SOCKET_UMASK = 0177;  // for our own user only

Fd listener_at(const sockaddr_un& address) {
  Fd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  const mode_t others = umask(SOCKET_UMASK);
  const bool listens =
      fd && bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      listen(fd.get(), SOMAXCONN) == 0;
  umask(others);
  return listens ? std::move(fd) : Fd{};
}

}  // namespace

LoginSocket::~LoginSocket() {
  if (listener_) unlink(path_.c_str());
}

bool LoginSocket::offer() {
  if (listener_) return true;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  path_.copy(address.sun_path, path_.size());
  unlink(path_.c_str());
  listener_ = listener_at(address);
  return listener_.operator bool();
}

void LoginSocket::serve(Management& daemon) {
  if (!client_) return greet();
  client_.fill();
  bool leaves = client_.closed();
  while (const auto command = client_.next()) {
    leaves = leaves || *command == "quit" || *command == "exit";
    if (!leaves) std::ignore = daemon.say(*command);  // a daemon that is gone shows at its socket
  }
  if (leaves) client_ = Management{};
}

void LoginSocket::greet() {
  client_ = Management::accepted(listener_.get());
  for (const std::string& line : {greeting_, question_})
    if (client_ && !line.empty() && !client_.say(line)) client_ = Management{};
}

void LoginSocket::take(std::string_view line) {
  if (line.starts_with(GREETING)) greeting_ = line;
  if (line.starts_with(QUESTION)) question_ = line;
  if (line.starts_with(PASSWORD_TAKEN)) question_.clear();
  // The attendant's own commands have other answers, and meet no error.
  const bool answer = line.starts_with(TAKEN) || line.starts_with(REFUSED);
  if (client_ && answer && !client_.say(line)) client_ = Management{};
}

}  // namespace fenro::openvpn
