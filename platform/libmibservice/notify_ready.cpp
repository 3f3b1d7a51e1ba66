#include "libmibservice/notify_ready.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <tuple>

#include "base/handle.h"

namespace fenro::bus {

void notify_ready() {
  constexpr std::string_view READY = "READY=1";
  const char* const name = std::getenv("NOTIFY_SOCKET");
  const std::string_view path = name ? name : "";
  sockaddr_un address{};
  if (path.size() < 2 || path.size() >= sizeof address.sun_path ||
      (path[0] != '/' && path[0] != '@'))
    return;

  address.sun_family = AF_UNIX;
  std::copy(path.begin(), path.end(), address.sun_path);
  if (path[0] == '@') address.sun_path[0] = '\0';  // an abstract socket
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());

  const Fd socket{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  // A missing service manager does not prevent serving.
  std::ignore = sendto(socket.get(), READY.data(), READY.size(), MSG_NOSIGNAL,
                       reinterpret_cast<const sockaddr*>(&address), length);
}

}  // namespace fenro::bus
