#include "ormel/host/probe.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <netdb.h>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "ormel/base/handle.h"
#include "ormel/host/probe_packet.h"

namespace ormel::misc {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::seconds;

constexpr seconds PING_PATIENCE{2};
constexpr seconds NSLOOKUP_PATIENCE{3};
constexpr int TTL = 255;
constexpr uint16_t DNS_PORT = 53;
constexpr size_t DNS_ANSWER_MAX = 65536;

template <typename Ratio>
double since(Clock::time_point start) {
  return std::chrono::duration<double, Ratio>(Clock::now() - start).count();
}

bool set_patience(const Fd& socket, microseconds patience) {
  const timeval timeout{patience / seconds{1}, (patience % seconds{1}).count()};
  return setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) == 0;
}

bool send_to(const Fd& socket, const void* bytes, size_t length, in_addr_t address, uint16_t port) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = address;
  return sendto(socket.get(), bytes, length, 0, reinterpret_cast<const sockaddr*>(&to),
                sizeof to) >= 0;
}

// The datagrams that come until none has counted for a while. What does not count gives no new
// wait: on a network that is never silent the probe would not end.
class Datagrams {
 public:
  Datagrams(const Fd& socket, seconds patience, size_t size)
      : socket_(socket), patience_(patience), buffer_(size, 0) {}

  // The source of the next one; nothing when it is time to stop.
  std::optional<in_addr> next() {
    const auto left = std::chrono::duration_cast<microseconds>(patience_ - (Clock::now() - last_));
    if (left <= microseconds{0} || !set_patience(socket_, left)) return {};
    sockaddr_in from{};
    socklen_t size = sizeof from;
    const ssize_t got = TEMP_FAILURE_RETRY(recvfrom(socket_.get(), buffer_.data(), buffer_.size(),
                                                    0, reinterpret_cast<sockaddr*>(&from), &size));
    if (got < 1) return {};
    length_ = static_cast<size_t>(got);
    return from.sin_addr;
  }
  [[nodiscard]] std::string_view bytes() const { return {buffer_.data(), length_}; }

  void count() {
    ++counted_;
    last_ = Clock::now();
  }
  [[nodiscard]] size_t counted() const { return counted_; }

 private:
  const Fd& socket_;
  seconds patience_;
  std::string buffer_;
  size_t length_ = 0;
  size_t counted_ = 0;
  Clock::time_point last_ = Clock::now();
};

// Root's socket hears whatever a host sends back. Without the right to it the kernel's own echo
// socket will do, where the host lets our group have one (net.ipv4.ping_group_range); it hears
// nothing but the replies to its own requests.
Fd icmp_socket(uint16_t id) {
  const protoent* icmp = getprotobyname("ICMP");
  const int protocol = icmp ? icmp->p_proto : IPPROTO_ICMP;
  Fd raw{socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, protocol)};
  if (raw || (errno != EPERM && errno != EACCES)) return raw;

  Fd echo{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, protocol)};
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port =
      id;  // the kernel puts the port of such a socket into its requests, as it is in memory
  if (echo)
    std::ignore =
        bind(echo.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name);  // or any other id
  return echo;
}

long resolve(const char* host) {
  const hostent* entry = gethostbyname(host);
  if (!entry || entry->h_addrtype != AF_INET || !entry->h_addr_list[0]) return 0;
  in_addr_t address = 0;
  std::memcpy(&address, entry->h_addr_list[0], sizeof address);
  return static_cast<long>(address);
}

// The first host of that address takes the time. Whether there is one.
bool take_echo(std::vector<NETHOST>& hosts, in_addr from, Clock::time_point start) {
  if (from.s_addr == htonl(INADDR_LOOPBACK))
    return false;  // the requests to our own addresses come from there
  const auto host = std::find_if(hosts.begin(), hosts.end(), [&](const NETHOST& each) {
    return each.addr == static_cast<long>(from.s_addr);
  });
  if (host == hosts.end()) return false;
  host->result = static_cast<int>(since<std::milli>(start));
  return true;
}

void take_answer(std::vector<NETHOST>& hosts, in_addr from, Clock::time_point start) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &from, text, sizeof text);
  for (NETHOST& host : hosts) {
    if (std::strcmp(host.host, text) != 0) continue;
    host.result = 1;
    host.latency = since<std::milli>(start);
  }
}

}  // namespace

int ping(std::vector<NETHOST>& hosts) {
  const auto id = static_cast<uint16_t>(getpid());
  const ICMP_PACKET packet = echo_request(id, static_cast<uint32_t>(std::time(nullptr)));
  std::vector<NETHOST> resolved =
      hosts;  // before the socket is there, which would gather what others send meanwhile
  for (NETHOST& host : resolved) host.addr = resolve(host.host);

  const Fd socket = icmp_socket(id);
  if (!socket || setsockopt(socket.get(), IPPROTO_IP, IP_TTL, &TTL, sizeof TTL) != 0) return 0;
  if (!set_patience(socket, PING_PATIENCE)) return 0;
  hosts = std::move(resolved);
  for (const NETHOST& host : hosts) {
    if (host.addr != 0)
      std::ignore = send_to(socket, &packet, sizeof packet, static_cast<in_addr_t>(host.addr), 0);
  }

  const Clock::time_point start = Clock::now();
  Datagrams datagrams(socket, PING_PATIENCE, sizeof packet);
  while (const auto from = datagrams.next()) {
    if (take_echo(hosts, *from, start)) datagrams.count();
    if (datagrams.counted() == hosts.size()) break;
  }
  return static_cast<int>(datagrams.counted());
}

int nslookup(std::vector<NETHOST>& hosts) {
  const Fd socket{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  if (!socket || !set_patience(socket, NSLOOKUP_PATIENCE)) return 0;
  const Clock::time_point start = Clock::now();
  for (NETHOST& host : hosts) {
    host.result = 0;
    host.latency = std::chrono::duration<double>(start.time_since_epoch()).count();
    const std::string query = name_server_query(static_cast<uint16_t>(getpid()), host.host);
    std::ignore = send_to(socket, query.data(), query.size(), inet_addr(host.host),
                          DNS_PORT);  // no answer then
  }

  Datagrams datagrams(socket, NSLOOKUP_PATIENCE, DNS_ANSWER_MAX);
  while (const auto from = datagrams.next()) {
    if (!holds_question(datagrams.bytes())) continue;
    datagrams.count();
    take_answer(hosts, *from, start);
    if (datagrams.counted() == hosts.size()) break;
  }
  return static_cast<int>(datagrams.counted());
}

}  // namespace ormel::misc
