#include "daemons/pelmar/security_associations.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <linux/netlink.h>
#include <linux/xfrm.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "base/handle.h"

namespace fenro::pelmar {

namespace {

constexpr std::size_t DATAGRAM_MAX = 64UL * 1024;
constexpr timeval PATIENCE{2, 0};

// Copies the value out, as it may be unaligned. Returns false if there are too few bytes.
template <typename T>
bool leading(std::string_view bytes, T& out) {
  if (bytes.size() < sizeof out) return false;
  std::memcpy(&out, bytes.data(), sizeof out);
  return true;
}

std::string_view skip(std::string_view bytes, std::size_t count) {
  return bytes.substr(std::min<std::size_t>(NLMSG_ALIGN(count), bytes.size()));
}

bool has_keys(std::string_view attributes) {
  nlattr head{};
  for (; leading(attributes, head) && head.nla_len >= sizeof head;
       attributes = skip(attributes, head.nla_len)) {
    switch (head.nla_type & NLA_TYPE_MASK) {
      case XFRMA_ALG_CRYPT:
      case XFRMA_ALG_AUTH:
      case XFRMA_ALG_AEAD: return true;
      default: break;
    }
  }
  return false;
}

}  // namespace

bool take_associations(std::string_view answer, SecurityAssociations& out) {
  nlmsghdr head{};
  for (; leading(answer, head); answer = skip(answer, head.nlmsg_len)) {
    if (head.nlmsg_len < sizeof head || head.nlmsg_len > answer.size()) return false;
    if (head.nlmsg_type == NLMSG_DONE || head.nlmsg_type == NLMSG_ERROR) return false;
    const std::string_view body = answer.substr(sizeof head, head.nlmsg_len - sizeof head);
    xfrm_usersa_info info{};
    if (head.nlmsg_type != XFRM_MSG_NEWSA || !leading(body, info) || info.family != AF_INET)
      continue;
    if (has_keys(skip(body, sizeof info))) out.emplace(info.saddr.a4, info.id.daddr.a4);
  }
  return true;
}

SecurityAssociations security_associations() {
  SecurityAssociations out;
  const Fd fd{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_XFRM)};
  if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &PATIENCE, sizeof PATIENCE) != 0)
    return out;
  nlmsghdr request{};
  request.nlmsg_len = sizeof request;
  request.nlmsg_type = XFRM_MSG_GETSA;
  request.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  if (send(fd.get(), &request, sizeof request, 0) != sizeof request) return out;
  std::array<char, DATAGRAM_MAX> buffer;
  for (;;) {
    const ssize_t got = recv(fd.get(), buffer.data(), buffer.size(), 0);
    if (got <= 0 || !take_associations({buffer.data(), static_cast<std::size_t>(got)}, out))
      return out;
  }
}

TunnelState tunnel_state(const SecurityAssociations& associations, const char* peer) {
  in_addr address{};
  if (!peer || inet_pton(AF_INET, peer, &address) != 1) return TunnelState::NONE;
  const auto has = [&](bool out) {
    return std::any_of(associations.begin(), associations.end(), [&](const auto& association) {
      return (out ? association.second : association.first) == address.s_addr;
    });
  };
  const bool in = has(false);
  const bool out = has(true);
  return in && out ? TunnelState::UP : in || out ? TunnelState::HALF : TunnelState::NONE;
}

}  // namespace fenro::pelmar
