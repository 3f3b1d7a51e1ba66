#include "daemons/networkd/rtnetlink.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <optional>
#include <sys/socket.h>
#include <sys/time.h>

#include "base/handle.h"

namespace fenro::networkd {
namespace {

constexpr std::size_t DATAGRAM_MAX = 64UL * 1024;  // the kernel sends at most 32 KiB at once
constexpr timeval ANSWER_TIMEOUT{2, 0};
constexpr int ATTEMPTS = 4;               // a list that changed while it was read is read again
constexpr std::uint8_t OPER_UNKNOWN = 0;  // tunnels and loopback never say more
constexpr std::uint8_t OPER_UP = 6;

// The head of rtnl_link_stats64. Kernels have added fields at its end, so its full size is not the
// size of all of them.
struct Counters {
  std::uint64_t rx_packets, tx_packets, rx_bytes, tx_bytes;
};
static_assert(offsetof(Counters, tx_bytes) == offsetof(rtnl_link_stats64, tx_bytes));

constexpr std::size_t aligned(std::size_t length) {
  return (length + 3) & ~std::size_t{3};
}

Bytes skip(Bytes bytes, std::size_t count) {
  return count < bytes.size() ? bytes.subspan(count) : Bytes{};
}

// Copied out, as nothing says that it is aligned. Nothing if there are too few bytes.
template <typename T>
std::optional<T> leading(Bytes bytes) {
  T value{};
  if (bytes.size() < sizeof value) return std::nullopt;
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

std::string text(Bytes bytes) {
  if (bytes.empty()) return {};
  const auto* begin = reinterpret_cast<const char*>(bytes.data());
  return {begin, strnlen(begin, bytes.size())};
}

// The hardware address of a device that has one of six bytes.
std::string mac_text(Bytes bytes) {
  char buffer[18] = "";
  if (bytes.size() != 6) return {};
  const auto at = [bytes](std::size_t i) { return std::to_integer<unsigned>(bytes[i]); };
  std::snprintf(buffer, sizeof buffer, "%02x:%02x:%02x:%02x:%02x:%02x", at(0), at(1), at(2), at(3),
                at(4), at(5));
  return buffer;
}

struct Request {
  nlmsghdr header;
  rtgenmsg body;
};

bool send_request(const Fd& socket, std::uint16_t type, unsigned char family) {
  Request request{};
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.body);
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = 1;
  request.body.rtgen_family = family;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  return sendto(socket.get(), &request, request.header.nlmsg_len, 0,
                reinterpret_cast<const sockaddr*>(&kernel),
                sizeof kernel) == static_cast<ssize_t>(request.header.nlmsg_len);
}

enum class Progress { more, done, interrupted, failed };

// The next datagram from the kernel itself; others may send to the socket as well, and are not
// heard.
bool receive(const Fd& socket, std::vector<std::byte>& buffer) {
  for (;;) {
    buffer.resize(DATAGRAM_MAX);
    sockaddr_nl from{};
    socklen_t length = sizeof from;
    const ssize_t got = recvfrom(socket.get(), buffer.data(), buffer.size(), MSG_TRUNC,
                                 reinterpret_cast<sockaddr*>(&from), &length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 || static_cast<std::size_t>(got) > buffer.size()) return false;
    if (from.nl_pid != 0) continue;
    buffer.resize(static_cast<std::size_t>(got));
    return true;
  }
}

// Hands the payload of each message of a datagram to `take`.
template <typename Take>
Progress walk(Bytes datagram, Take take) {
  bool interrupted = false;
  while (const auto header = leading<nlmsghdr>(datagram)) {
    if (header->nlmsg_len < sizeof *header || header->nlmsg_len > datagram.size())
      return Progress::failed;
    if (header->nlmsg_type == NLMSG_ERROR) return Progress::failed;
    interrupted = interrupted || (header->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    if (header->nlmsg_type == NLMSG_DONE)
      return interrupted ? Progress::interrupted : Progress::done;
    take(header->nlmsg_type, skip(datagram.first(header->nlmsg_len), NLMSG_HDRLEN));
    datagram = skip(datagram, aligned(header->nlmsg_len));
  }
  return interrupted ? Progress::interrupted : Progress::more;
}

template <typename Take>
Progress dump_once(std::uint16_t type, unsigned char family, Take take) {
  const Fd socket{::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)};
  if (!socket) return Progress::failed;
  if (setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &ANSWER_TIMEOUT, sizeof ANSWER_TIMEOUT) !=
      0)
    return Progress::failed;
  if (!send_request(socket, type, family)) return Progress::failed;

  std::vector<std::byte> buffer;
  Progress progress = Progress::more;
  while (progress == Progress::more)
    progress = receive(socket, buffer) ? walk(buffer, take) : Progress::failed;
  return progress;
}

// Reads a list of `answer` messages; a message that does not parse is not ours and passed over.
template <typename T>
bool dump(std::uint16_t request, std::uint16_t answer, unsigned char family,
          bool (*parse)(Bytes, T&), std::vector<T>& out) {
  for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
    out.clear();
    const Progress progress = dump_once(request, family, [&](std::uint16_t type, Bytes payload) {
      T item;
      if (type == answer && parse(payload, item)) out.push_back(std::move(item));
    });
    if (progress == Progress::done) return true;
    if (progress == Progress::failed) return false;
  }
  return !out.empty();  // it never stood still; the last reading is as good as any
}

}  // namespace

Bytes find_attribute(Bytes attributes, unsigned type) {
  while (const auto header = leading<rtattr>(attributes)) {
    if (header->rta_len < sizeof *header || header->rta_len > attributes.size()) return {};
    if ((header->rta_type & NLA_TYPE_MASK) == type)
      return attributes.subspan(sizeof *header, header->rta_len - sizeof *header);
    attributes = skip(attributes, aligned(header->rta_len));
  }
  return {};
}

bool parse_link(Bytes payload, Link& out) {
  const auto message = leading<ifinfomsg>(payload);
  if (!message) return false;
  const Bytes attributes = skip(payload, aligned(sizeof *message));
  out.index = message->ifi_index;
  out.flags = message->ifi_flags;
  out.name = text(find_attribute(attributes, IFLA_IFNAME));
  out.hardware = message->ifi_type;
  out.master = leading<int>(find_attribute(attributes, IFLA_MASTER)).value_or(0);
  out.kind = text(find_attribute(find_attribute(attributes, IFLA_LINKINFO), IFLA_INFO_KIND));
  out.mac = mac_text(find_attribute(attributes, IFLA_ADDRESS));
  const auto state =
      leading<std::uint8_t>(find_attribute(attributes, IFLA_OPERSTATE)).value_or(OPER_UNKNOWN);
  out.running = (out.flags & IFF_UP) != 0 && (state == OPER_UP || state == OPER_UNKNOWN);
  if (const auto counters = leading<Counters>(find_attribute(attributes, IFLA_STATS64))) {
    out.rx_bytes = counters->rx_bytes;
    out.tx_bytes = counters->tx_bytes;
  }
  return out.index > 0 && !out.name.empty();
}

bool parse_address(Bytes payload, Address& out) {
  const auto message = leading<ifaddrmsg>(payload);
  if (!message || message->ifa_family != AF_INET || message->ifa_prefixlen > 32) return false;
  const Bytes attributes = skip(payload, aligned(sizeof *message));
  const auto network = leading<std::uint32_t>(find_attribute(attributes, IFA_ADDRESS));
  const auto local = leading<std::uint32_t>(find_attribute(attributes, IFA_LOCAL));
  if (!network && !local) return false;
  out.index = static_cast<int>(message->ifa_index);
  out.prefix = message->ifa_prefixlen;
  out.local = ntohl(local ? *local : *network);
  out.network = ntohl(network ? *network : *local);
  return true;
}

namespace {

bool parse_address_mark(Bytes payload, AddressMark& out) {
  const auto message = leading<ifaddrmsg>(payload);
  if (!message) return false;
  const Bytes address = find_attribute(skip(payload, aligned(sizeof *message)), IFA_ADDRESS);
  out.index = static_cast<int>(message->ifa_index);
  out.address.assign(reinterpret_cast<const char*>(address.data()), address.size());
  out.address += static_cast<char>(message->ifa_prefixlen);
  return true;
}

}  // namespace

bool parse_route(Bytes payload, Route& out) {
  const auto message = leading<rtmsg>(payload);
  if (!message || message->rtm_family != AF_INET || message->rtm_type != RTN_UNICAST) return false;
  const Bytes attributes = skip(payload, aligned(sizeof *message));
  const auto value = [attributes](unsigned type) {
    return leading<std::uint32_t>(find_attribute(attributes, type));
  };
  out.table = value(RTA_TABLE).value_or(message->rtm_table);
  out.prefix = message->rtm_dst_len;
  out.index = static_cast<int>(value(RTA_OIF).value_or(0));
  out.gateway = ntohl(value(RTA_GATEWAY).value_or(0));
  out.metric = value(RTA_PRIORITY).value_or(0);
  out.protocol = message->rtm_protocol;
  return true;
}

bool list_links(std::vector<Link>& out) {
  return dump(RTM_GETLINK, RTM_NEWLINK, AF_UNSPEC, parse_link, out);
}

bool list_addresses(std::vector<Address>& out) {
  return dump(RTM_GETADDR, RTM_NEWADDR, AF_INET, parse_address, out);
}

bool list_routes(std::vector<Route>& out) {
  return dump(RTM_GETROUTE, RTM_NEWROUTE, AF_INET, parse_route, out);
}

bool list_address_marks(std::vector<AddressMark>& out) {
  return dump(RTM_GETADDR, RTM_NEWADDR, AF_UNSPEC, parse_address_mark, out);
}

}  // namespace fenro::networkd
