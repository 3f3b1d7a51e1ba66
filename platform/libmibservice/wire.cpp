#include "libmibservice/wire.h"

#include <algorithm>
#include <unistd.h>

namespace fenro::bus {
namespace {

constexpr std::string_view NAME_PREFIX = "fenro-bus/";

std::string frame(std::size_t second, std::string_view front, std::string_view body) {
  std::string out;
  out.reserve(HEAD + front.size() + body.size());
  put_number(out, NUMBER + front.size() + body.size());
  put_number(out, second);
  out.append(front).append(body);
  return out;
}

}  // namespace

Address address_of(std::string_view service) {
  const bool literal = service.starts_with('@');
  if (literal) service.remove_prefix(1);
  const std::string text = std::string(literal ? "" : NAME_PREFIX).append(service);

  Address address;
  address.sun.sun_family = AF_UNIX;
  // One byte is the leading NUL that makes the name abstract; no trailing NUL is needed.
  if (service.empty() || text.size() >= sizeof address.sun.sun_path) return address;
  std::copy(text.begin(), text.end(), address.sun.sun_path + 1);
  address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + text.size());
  return address;
}

std::uint32_t get_number(const char* bytes) {
  std::uint32_t number = 0;
  for (std::size_t i = NUMBER; i-- > 0;)
    number = number << 8 | static_cast<unsigned char>(bytes[i]);
  return number;
}

void put_number(std::string& out, std::size_t number) {
  for (std::size_t i = 0; i < NUMBER; ++i)
    out.push_back(static_cast<char>(number >> (8 * i) & 0xff));
}

std::string request_frame(std::string_view method, std::string_view body) {
  return frame(method.size(), method, body);
}

std::string reply_frame(int status, std::string_view body) {
  return frame(static_cast<std::size_t>(status), {}, body);
}

bool peer_is_trusted(int socket) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
  return peer.uid == 0 || peer.uid == geteuid();
}

}  // namespace fenro::bus
