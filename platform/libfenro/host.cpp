#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <tuple>

#include <fenro/host.h>

#include "base/handle.h"
#include "base/random_name.h"
#include "base/tunnel_mark.h"
#include "libfenro/ini_file.h"
#include "libfenro/paths.h"

namespace fenro {
namespace {

using Interfaces = std::unique_ptr<ifaddrs, FreeWith<freeifaddrs>>;

// 192.0.2.1 is in no network of this host, so it takes the default route.
constexpr std::uint32_t FAR_AWAY = 0xc0000201;
constexpr std::uint16_t ANY_PORT = 9;

struct Network {
  std::uint32_t address;
  int length;
};
// Addresses that cannot be reached from outside.
constexpr std::array<Network, 9> NOT_PUBLIC{
    {{0x00000000, 8},    // this network
     {0x0a000000, 8},    // private
     {0x64400000, 10},   // of a provider that translates addresses
     {0x7f000000, 8},    // this host
     {0xa9fe0000, 16},   // link-local
     {0xac100000, 12},   // private
     {0xc0a80000, 16},   // private
     {0xc6120000, 15},   // benchmarks
     {0xe0000000, 3}}};  // multicast and reserved

bool is_public(in_addr address) {
  const std::uint32_t number = ntohl(address.s_addr);
  return std::none_of(NOT_PUBLIC.begin(), NOT_PUBLIC.end(), [number](const Network& network) {
    return (number ^ network.address) >> (32 - network.length) == 0;
  });
}

// The address that the default route's interface would send from. Connecting a datagram socket
// sends nothing.
std::optional<in_addr> default_source() {
  const Fd socket{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  // A tunnel that is the default gateway has an address that is not reachable from outside.
  // Without the right to a mark its answer is still taken.
  if (socket)
    std::ignore = setsockopt(socket.get(), SOL_SOCKET, SO_MARK, &TUNNEL_MARK, sizeof TUNNEL_MARK);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(ANY_PORT);
  address.sin_addr.s_addr = htonl(FAR_AWAY);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (!socket || connect(socket.get(), generic, length) != 0) return {};
  if (getsockname(socket.get(), generic, &length) != 0) return {};
  return address.sin_addr;
}

// A public address of an interface that is up. Tunnels do not count: their far end is not the
// world.
std::optional<in_addr> any_public() {
  ifaddrs* head = nullptr;
  if (getifaddrs(&head) != 0) return {};
  const Interfaces all{head};
  for (const ifaddrs* entry = head; entry; entry = entry->ifa_next) {
    const bool usable =
        (entry->ifa_flags & IFF_UP) != 0 && (entry->ifa_flags & IFF_POINTOPOINT) == 0;
    if (!usable || !entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET) continue;
    sockaddr_in address{};
    std::memcpy(&address, entry->ifa_addr, sizeof address);
    if (is_public(address.sin_addr)) return address.sin_addr;
  }
  return {};
}

// What may stand for a host in a profile: an address or a plain name.
bool is_host(std::string_view text) {
  constexpr std::string_view ALLOWED =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-";
  return !text.empty() && text.front() != '-' && text.front() != '.' &&
         text.find_first_not_of(ALLOWED) == std::string_view::npos;
}

std::optional<in_addr> external_address() {
  const auto source = default_source();
  if (!source || is_public(*source)) return source;
  const auto other = any_public();
  return other ? other : source;
}

}  // namespace
}  // namespace fenro

int Get_External_IP(char* buffer, int length) {
  if (!buffer || length <= 0) return -1;
  buffer[0] = '\0';
  const std::string known =
      fenro::ini::read_value(fenro::paths::SYSTEM_CONF, "System", "Public Address").value_or("");
  if (fenro::is_host(known) && known.size() < static_cast<std::size_t>(length)) {
    known.copy(buffer, known.size());
    buffer[known.size()] = '\0';
    return 0;
  }
  const auto address = fenro::external_address();
  if (!address) return -1;
  return inet_ntop(AF_INET, &*address, buffer, static_cast<socklen_t>(length)) ? 0 : -1;
}

int vantri_mktmpname(char* name_template) {
  constexpr std::string_view MARK = "XXXXXX";
  constexpr int ATTEMPTS = 100;
  if (!name_template) return -1;
  const std::string_view whole = name_template;
  if (!whole.ends_with(MARK)) return -1;
  const std::string front{whole.substr(0, whole.size() - MARK.size())};
  for (int i = 0; i < ATTEMPTS; ++i) {
    std::string ending(MARK.size(), '\0');
    if (!fenro::random_name(ending)) return -1;
    struct stat info {};
    const int found = lstat((front + ending).c_str(), &info);
    if (found == 0) continue;
    if (errno != ENOENT) return -1;
    std::copy(ending.begin(), ending.end(), name_template + front.size());
    return 0;
  }
  return -1;
}
