#include "daemons/networkd/tunnel_watch.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <ctime>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <tuple>
#include <utility>

#include <fenro/mibservice.h>

#include "base/argv.h"
#include "base/bus_handle.h"
#include "base/lines.h"
#include "common/heard.h"
#include "daemons/networkd/interfaces.h"
#include "daemons/networkd/ipv4_network.h"

namespace fenro::networkd {
namespace {

constexpr std::chrono::seconds PATIENCE{5};    // several lost echoes in a row
constexpr std::chrono::seconds ASK_DAEMON{3};  // of silence, before the daemon is asked
// Of a tunnel whose daemon says when it hears something. Keep-alives of OpenVPN and Drovik come
// every ten seconds, and WireGuard answers what it gets after ten.
constexpr std::chrono::seconds DAEMON_PATIENCE{15};
constexpr std::chrono::seconds LONG_SILENCE{
    30};  // of a far end that never answered an echo, while others send to it
constexpr std::uint64_t SENT_IN_VAIN =
    8192;  // bytes; our own echoes of that time, and what finds neighbours, are less
constexpr std::string_view WIREGUARD = "wgc";
constexpr int NETWORK_OF_A_HOST =
    24;  // what an address that comes with no network is taken to be part of

Fd echo_socket(const std::string& interface) {
  Fd socket{::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_ICMP)};
  if (socket && setsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, interface.data(),
                           static_cast<socklen_t>(interface.size())) != 0)
    socket = Fd{};
  return socket;
}

void ask(int socket, std::uint32_t address) {
  icmphdr echo{};
  echo.type = ICMP_ECHO;
  echo.checksum =
      static_cast<std::uint16_t>(~static_cast<unsigned>(htons(ICMP_ECHO << 8)));  // all else is 0
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(address);
  sendto(socket, &echo, sizeof echo, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to),
         sizeof to);
}

// Whether an answer of `address` to one of our echoes has come in. All that waits is taken, up to a
// limit.
bool answered(int socket, std::uint32_t address) {
  constexpr int MOST = 256;
  bool found = false;
  for (int i = 0; i < MOST; ++i) {
    std::array<unsigned char, 128> packet{};
    sockaddr_in from{};
    socklen_t length = sizeof from;
    const ssize_t size = recvfrom(socket, packet.data(), packet.size(), MSG_TRUNC,
                                  reinterpret_cast<sockaddr*>(&from), &length);
    if (size < 0) break;
    const std::size_t head = std::size_t{4} * (packet[0] & 0x0fU);
    if (static_cast<std::size_t>(size) < head + sizeof(icmphdr) ||
        head + sizeof(icmphdr) > packet.size())
      continue;
    if (packet[head] == ICMP_ECHOREPLY && from.sin_addr.s_addr == htonl(address)) found = true;
  }
  return found;
}

// The output of wg(8); empty when it fails.
std::string wireguard(const std::string& interface, const char* field) {
  std::vector<std::string> words{"/usr/bin/wg", "show", interface, field};
  const MibIo out{mib_io_create()};
  if (!out || mib_io_execv(nullptr, out.get(), nullptr, argv_of(words).data()) != 0) return {};
  std::size_t length = 0;
  const char* const bytes = mib_io_read(out.get(), &length);
  return {bytes, length};
}

}  // namespace

std::uint64_t largest_of(std::string_view table, std::size_t column) {
  std::uint64_t largest = 0;
  while (!table.empty()) {
    std::string_view line = take_line(table);
    for (std::size_t i = 0; i < column; ++i) std::ignore = take_until(line, '\t');
    std::uint64_t number = 0;
    std::from_chars(line.data(), line.data() + line.size(), number);
    largest = std::max(largest, number);
  }
  return largest;
}

std::optional<std::chrono::seconds> TunnelWatch::daemon_silence(const std::string& interface,
                                                                Seen& seen) {
  std::time_t heard = 0;
  if (interface.starts_with(WIREGUARD)) {
    const std::string handshakes = wireguard(interface, "latest-handshakes");
    if (handshakes.empty()) return {};
    heard = static_cast<std::time_t>(largest_of(handshakes, 1));
    const std::uint64_t received = largest_of(wireguard(interface, "transfer"), 1);
    if (std::exchange(seen.peer_bytes, received) != received && seen.has_daemon)
      return std::chrono::seconds{0};
  } else {
    struct stat status {};
    if (stat(heard_file(interface).c_str(), &status) != 0) return {};
    heard = status.st_mtim.tv_sec;
  }
  // A clock that was set back makes a time worthless.
  const std::time_t age = std::time(nullptr) - heard;
  return age < 0 ? std::nullopt : std::optional{std::chrono::seconds{age}};
}

std::uint32_t far_end(const Address& address) {
  if (address.network != address.local) return address.network;
  const int prefix = address.prefix > 30 ? NETWORK_OF_A_HOST : address.prefix;
  const std::uint32_t first = Ipv4Network{address.local, prefix}.first() + 1;
  return first == address.local ? first + 1 : first;
}

Health TunnelWatch::look(const std::string& interface, const std::vector<Link>& links,
                         const std::vector<Address>& addresses, Clock::time_point now) {
  const Link* const link = find_link(links, interface);
  const auto address = std::find_if(addresses.begin(), addresses.end(), [link](const Address& one) {
    return link && one.index == link->index;
  });
  if (address == addresses.end() || !link->running) {
    seen_.erase(interface);
    return Health::ABSENT;
  }
  Seen& seen = seen_[interface];
  if (seen.index != link->index) {
    seen = {};
    seen.index = link->index;
    seen.heard = now;
    seen.rx_bytes = link->rx_bytes;
    seen.tx_heard = link->tx_bytes;
    seen.echo = echo_socket(interface);
  }
  if (seen.rx_bytes != link->rx_bytes) {
    seen.rx_bytes = link->rx_bytes;
    seen.tx_heard = link->tx_bytes;
    seen.heard = now;
  }
  if (seen.echo) {
    const std::uint32_t far = far_end(*address);
    seen.answers = answered(seen.echo.get(), far) || seen.answers;
    ask(seen.echo.get(), far);
  }
  if (now - seen.heard >= ASK_DAEMON) {
    const auto silence = daemon_silence(interface, seen);
    seen.has_daemon = silence.has_value();
    if (silence && now - *silence > seen.heard) {
      seen.heard = now - *silence;
      seen.tx_heard = link->tx_bytes;
    }
  }
  const auto patience = seen.has_daemon ? DAEMON_PATIENCE : PATIENCE;
  if (seen.answers) return now - seen.heard < patience ? Health::WELL : Health::SILENT;
  const bool in_vain = link->tx_bytes - seen.tx_heard > SENT_IN_VAIN;
  return in_vain && now - seen.heard >= LONG_SILENCE ? Health::SILENT : Health::WELL;
}

}  // namespace fenro::networkd
