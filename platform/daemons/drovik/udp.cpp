#include "daemons/drovik/udp.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <optional>
#include <sys/socket.h>

#include "base/tunnel_mark.h"

namespace fenro::drovik {
namespace {

constexpr std::size_t BATCH = 16;       // messages a call, in both directions
constexpr std::size_t MESSAGE = 65536;  // what one may hold of cut or joined datagrams
constexpr std::size_t SEND_MAX =
    65000;  // below what one IP packet may hold, for the kernel's count includes heads
constexpr std::size_t SEGMENTS_MAX = 64;  // the kernel's limit
constexpr int SOCKET_BUFFER = 4 << 20;

constexpr std::size_t SEND_CONTROL =
    CMSG_SPACE(sizeof(std::uint16_t)) + CMSG_SPACE(sizeof(in_pktinfo));
constexpr std::size_t RECEIVE_CONTROL = CMSG_SPACE(sizeof(int)) + CMSG_SPACE(sizeof(in_pktinfo));

struct alignas(cmsghdr) Control {
  std::array<char, std::max(SEND_CONTROL, RECEIVE_CONTROL)> bytes;
};

sockaddr_in socket_address(Ipv4 address, std::uint16_t port) {
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  name.sin_addr.s_addr = htonl(address);
  return name;
}

template <typename Value>
bool set_option(int fd, int level, int option, Value value) {
  return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

// Appends one control message to those that are there.
template <typename Value>
void add_control(msghdr& head, int level, int type, const Value& value) {
  auto* at = reinterpret_cast<cmsghdr*>(static_cast<char*>(head.msg_control) + head.msg_controllen);
  at->cmsg_level = level;
  at->cmsg_type = type;
  at->cmsg_len = CMSG_LEN(sizeof value);
  std::memcpy(CMSG_DATA(at), &value, sizeof value);
  head.msg_controllen += CMSG_SPACE(sizeof value);
}

// What the kernel reports about a message: our address, and the size of the datagrams if it has
// joined several.
std::optional<std::size_t> read_controls(msghdr& head, Peer& from) {
  std::optional<std::size_t> segment;
  for (cmsghdr* at = CMSG_FIRSTHDR(&head); at; at = CMSG_NXTHDR(&head, at)) {
    if (at->cmsg_level == IPPROTO_UDP && at->cmsg_type == UDP_GRO) {
      int size = 0;
      std::memcpy(&size, CMSG_DATA(at), sizeof size);
      if (size > 0) segment = static_cast<std::size_t>(size);
    } else if (at->cmsg_level == IPPROTO_IP && at->cmsg_type == IP_PKTINFO) {
      in_pktinfo info{};
      std::memcpy(&info, CMSG_DATA(at), sizeof info);
      from.local = ntohl(info.ipi_spec_dst.s_addr);
    }
  }
  return segment;
}

}  // namespace

struct UdpSocket::Buffers {
  std::array<char, BATCH * MESSAGE> in;
  std::array<char, BATCH * MESSAGE> out;
  std::array<mmsghdr, BATCH> heads;
  std::array<iovec, BATCH> pieces;
  std::array<sockaddr_in, BATCH> names;
  std::array<Control, BATCH> controls;
};

UdpSocket::UdpSocket() : buffers_(std::make_unique_for_overwrite<Buffers>()) {}
UdpSocket::UdpSocket(UdpSocket&&) noexcept = default;
UdpSocket& UdpSocket::operator=(UdpSocket&&) noexcept = default;
UdpSocket::~UdpSocket() = default;

bool UdpSocket::open() {
  fd_ = Fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  if (!fd_) return false;
  // A path that carries less than ours cuts our datagrams: their size is fixed, so they must not be
  // dropped instead.
  set_option(fd_.get(), IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DONT);
  // Beyond the host's limit where we may, else up to it.
  for (const int option : {SO_RCVBUF, SO_SNDBUF, SO_RCVBUFFORCE, SO_SNDBUFFORCE})
    set_option(fd_.get(), SOL_SOCKET, option, SOCKET_BUFFER);
  set_option(fd_.get(), IPPROTO_UDP, UDP_GRO, 1);  // older kernels hand over one by one
  return set_option(fd_.get(), IPPROTO_IP, IP_PKTINFO, 1);
}

bool UdpSocket::listen(std::uint16_t port) {
  const sockaddr_in name = socket_address(INADDR_ANY, port);
  return open() && bind(fd_.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
}

bool UdpSocket::connect(Ipv4 address, std::uint16_t port) {
  const sockaddr_in name = socket_address(address, port);
  connected_ = true;
  if (!open()) return false;
  set_option(fd_.get(), SOL_SOCKET, SO_MARK,
             TUNNEL_MARK);  // beyond our rights it goes by the address of the server
  return ::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
}

void UdpSocket::prepare_receive() {
  Buffers& own = *buffers_;
  for (std::size_t i = 0; i < BATCH; ++i) {
    own.pieces[i] = {own.in.data() + i * MESSAGE, MESSAGE};
    msghdr& head = own.heads[i].msg_hdr;
    head = {
        &own.names[i], sizeof own.names[i], &own.pieces[i], 1, own.controls[i].bytes.data(), 0, 0};
    head.msg_controllen = own.controls[i].bytes.size();
  }
}

bool UdpSocket::receive(const Take& take) {
  prepare_receive();
  const int count = recvmmsg(fd_.get(), buffers_->heads.data(), BATCH, MSG_DONTWAIT, nullptr);
  for (std::size_t i = 0; count > 0 && i < static_cast<std::size_t>(count); ++i) {
    const std::size_t length = buffers_->heads[i].msg_len;
    Peer from{ntohl(buffers_->names[i].sin_addr.s_addr), ntohs(buffers_->names[i].sin_port)};
    const std::size_t segment = read_controls(buffers_->heads[i].msg_hdr, from).value_or(length);
    std::string_view rest{buffers_->in.data() + i * MESSAGE, length};
    while (!rest.empty()) {
      take(from, rest.substr(0, segment));
      rest.remove_prefix(std::min(segment, rest.size()));
    }
  }
  return count > 0;
}

bool UdpSocket::joins_last(const Peer& to, std::size_t size) const {
  if (!segments_ || queue_.empty()) return false;
  const Outgoing& last = queue_.back();
  return !last.ended && last.to.key() == to.key() && last.to.local == to.local &&
         size <= last.segment && last.size + size <= SEND_MAX &&
         last.size < last.segment * SEGMENTS_MAX;
}

void UdpSocket::send(const Peer& to, std::string_view datagram) {
  if (datagram.empty() || datagram.size() > SEND_MAX) return;
  const bool joins = joins_last(to, datagram.size());
  if (!joins && queue_.size() == BATCH) flush();
  if (!joins) queue_.push_back({to, queue_.size() * MESSAGE, 0, datagram.size(), false});
  Outgoing& message = queue_.back();
  datagram.copy(buffers_->out.data() + message.offset + message.size, datagram.size());
  message.size += datagram.size();
  message.ended = datagram.size() < message.segment;
}

void UdpSocket::prepare_send(std::size_t number) {
  Buffers& own = *buffers_;
  const Outgoing& message = queue_[number];
  msghdr& head = own.heads[number].msg_hdr;
  own.pieces[number] = {own.out.data() + message.offset, message.size};
  own.names[number] = socket_address(message.to.address, message.to.port);
  own.controls[number].bytes.fill(0);
  head = {nullptr, 0, &own.pieces[number], 1, own.controls[number].bytes.data(), 0, 0};
  if (!connected_) {
    head.msg_name = &own.names[number];
    head.msg_namelen = sizeof own.names[number];
    in_pktinfo info{};
    info.ipi_spec_dst.s_addr = htonl(message.to.local);
    add_control(head, IPPROTO_IP, IP_PKTINFO, info);
  }
  if (message.size > message.segment)
    add_control(head, IPPROTO_UDP, UDP_SEGMENT, static_cast<std::uint16_t>(message.segment));
}

void UdpSocket::flush() {
  for (std::size_t i = 0; i < queue_.size(); ++i) prepare_send(i);
  for (std::size_t done = 0; done < queue_.size();) {
    const auto left = static_cast<unsigned>(queue_.size() - done);
    const int sent = sendmmsg(fd_.get(), &buffers_->heads[done], left, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent > 0) {
      done += static_cast<std::size_t>(sent);
      continue;
    }
    if (errno == EINTR) continue;
    // A device without checksums in hardware, or a path with smaller packets, refuses to have it
    // cut.
    if (errno == EIO || errno == EINVAL || errno == EMSGSIZE) send_singly(queue_[done]);
    ++done;
  }
  queue_.clear();
}

void UdpSocket::send_singly(const Outgoing& message) {
  if (message.size <= message.segment) return;  // it was single, and could not be sent
  segments_ = false;
  std::string_view rest{buffers_->out.data() + message.offset, message.size};
  const std::size_t number = static_cast<std::size_t>(&message - queue_.data());
  msghdr& head = buffers_->heads[number].msg_hdr;
  head.msg_controllen = connected_ ? 0 : CMSG_SPACE(sizeof(in_pktinfo));
  while (!rest.empty()) {
    const std::string_view datagram = rest.substr(0, message.segment);
    buffers_->pieces[number] = {const_cast<char*>(datagram.data()), datagram.size()};  // only read
    sendmsg(fd_.get(), &head, MSG_DONTWAIT | MSG_NOSIGNAL);
    rest.remove_prefix(datagram.size());
  }
}

}  // namespace fenro::drovik
