#include "daemons/drovik/client.h"

#include <algorithm>
#include <array>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include "base/reason.h"
#include "daemons/drovik/log.h"

namespace fenro::drovik {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds TICK{250};
constexpr seconds LOGIN_TIME{15};  // for all steps of one attempt
constexpr seconds PROOF_TIME{
    6};  // for the server's last step of a handshake, which is sent again meanwhile
constexpr seconds LOGIN_REPEAT{1};
constexpr seconds PING_PERIOD{10};  // keeps the way through address translators open
constexpr seconds SILENCE{30};      // three answers missed
constexpr seconds HEARD_PERIOD{1};  // between two notes that the server lives
constexpr seconds KICK_PAUSE{5};
constexpr seconds FIRST_PAUSE{2};
constexpr seconds LONGEST_PAUSE{60};
constexpr unsigned DOUBLINGS = 5;  // from the first pause to the longest
constexpr int ROUNDS = 8;          // of batches from one side, before the other has its turn
constexpr int PACKETS = 256;
constexpr std::string_view WRONG_KEY = "psk-wrong";
constexpr int SURE_OF_KEY = 2;  // attempts in a row: a path that loses packets looks the same once

struct FreeAddresses {
  void operator()(addrinfo* list) const noexcept { freeaddrinfo(list); }
};

std::optional<Ipv4> look_up(const std::string& name) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (name.empty() || getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0) return {};
  const std::unique_ptr<addrinfo, FreeAddresses> owner{found};
  return ntohl(reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr);
}

// By Reason: the code of base/reason.h. Null where the next attempt follows as a matter of course.
constexpr const char* CODES[] = {
    "no-answer", "login-refused", "server-full", "login-later", "no-common-cipher", "kicked",
    "no-answer", "kicked",        nullptr,       nullptr,       "no-answer"};

const char* code_of(Reason reason) {
  const auto row = static_cast<std::size_t>(reason);
  return row < std::size(CODES) ? CODES[row] : CODES[0];
}

seconds pause_after(Reason reason, unsigned attempts) {
  if (reason == Reason::Kicked) return KICK_PAUSE;
  return std::min(FIRST_PAUSE * (1 << std::min(attempts, DOUBLINGS)), LONGEST_PAUSE);
}

}  // namespace

TunnelClient::TunnelClient(ClientSettings settings, const Dtls& dtls, Tun tun,
                           std::string identifier, Edges& edges)
    : settings_(std::move(settings)),
      dtls_(dtls),
      tun_(std::move(tun)),
      identifier_(std::move(identifier)),
      edges_(edges) {}

int TunnelClient::run(int signals) {
  while (stage_ != Stage::Finished) {
    std::array<pollfd, 3> entries{{{signals, POLLIN, 0},
                                   {channel_ ? socket_.fd() : -1, POLLIN, 0},
                                   {stage_ == Stage::Online ? tun_.fd() : -1, POLLIN, 0}}};
    poll(entries.data(), entries.size(), static_cast<int>(TICK.count()));
    if (entries[0].revents != 0) {
      leave();
      return 0;
    }
    if (entries[1].revents != 0) take_datagrams();
    if (entries[2].revents != 0) take_packets();
    tick();
    socket_.flush();
  }
  return 1;
}

// The address that was found when the profile was saved is good for the first time; later it may
// have moved.
bool TunnelClient::find_server() {
  const auto saved = parse_ipv4(settings_.server_address);
  auto found = attempts_ == 0 ? saved : std::nullopt;
  if (!found) found = look_up(settings_.server_name);
  if (!found) found = saved;
  server_ = found.value_or(0);
  return server_ != 0;
}

void TunnelClient::connect() {
  stage_ = Stage::Shaking;
  heard_ = Clock::now();
  socket_ = UdpSocket{};
  const bool found = find_server();
  if (!found || !socket_.connect(server_, settings_.port)) {
    log_line(LOG_WARNING, "no way to the server %s", settings_.server_name.c_str());
    return fall(Reason::Silent, found ? "no-route" : "name-not-found");
  }
  channel_ = std::make_unique<Channel>(
      dtls_, [this](const Peer& to, std::string_view datagram) { socket_.send(to, datagram); });
  channel_->begin();
}

void TunnelClient::take_datagrams() {
  const UdpSocket::Take take = [this](const Peer&, std::string_view datagram) {
    channel_->receive(datagram, [this](std::string_view message) { take_message(message); });
  };
  for (int round = 0; round < ROUNDS && fallen_ == Reason::None && socket_.receive(take); ++round)
    continue;
  if (fallen_ == Reason::None && channel_->state() == Channel::State::Ended)
    fallen_ = Reason::Silent;
  if (const Reason reason = std::exchange(fallen_, Reason::None); reason != Reason::None) {
    fall(reason, std::exchange(cause_, nullptr));
  }
}

// Must not end the channel, whose message this is: that is left to the caller, by fallen_.
void TunnelClient::take_message(std::string_view message) {
  heard_ = Clock::now();
  if (!is_packet(message)) return take_control(message);
  if (stage_ != Stage::Online || !packet_ends(message)) return;
  traffic_.received += message.size();
  tun_.write(message);
}

void TunnelClient::take_control(std::string_view message) {
  switch (kind_of(message)) {
    case Kind::Welcome:
      if (Welcome welcome; stage_ == Stage::Asking && decode(message, welcome)) come_up(welcome);
      return;
    case Kind::Refuse:
    case Kind::Bye: {
      const Reason reason = reason_of(message);
      fallen_ = reason == Reason::None ? Reason::Silent : reason;
      return;
    }
    default: return;
  }
}

void TunnelClient::come_up(const Welcome& welcome) {
  wrong_keys_ = 0;
  if (tun_.fd() < 0) {
    edges_.up(welcome, server_);
    channel_->send(encode(Kind::Bye, Reason::Left));
    fallen_ = Reason::Left;
    return;
  }
  if (!tun_.up(welcome.address, welcome.gateway, welcome.prefix, welcome.mtu)) {
    log_line(LOG_ERR, "the interface does not take the address %s",
             to_text(welcome.address).c_str());
    fallen_ = Reason::Silent;
    cause_ = "address-conflict";
    return;
  }
  stage_ = Stage::Online;
  attempts_ = 0;
  next_ = Clock::now() + PING_PERIOD;
  log_line(LOG_INFO, "online on %s, by %s", to_text(welcome.address).c_str(),
           to_text(server_).c_str());
  edges_.up(welcome, server_);
}

void TunnelClient::take_packets() {
  char buffer[MESSAGE_MAX];
  for (int i = 0; i < PACKETS && channel_; ++i) {
    const std::string_view packet = tun_.read(buffer);
    if (packet.empty()) break;
    if (!packet_ends(packet)) continue;
    traffic_.sent += packet.size();
    channel_->send(packet);
  }
}

void TunnelClient::tick() {
  const Clock::time_point now = Clock::now();
  if (stage_ == Stage::Finished) return;
  if (stage_ == Stage::Waiting) {
    if (now >= next_) connect();
    return;
  }
  channel_->tick();
  if (stage_ == Stage::Shaking && channel_->state() == Channel::State::Open) {
    stage_ = Stage::Asking;
    next_ = now;
  }
  if (stage_ != Stage::Shaking && now >= next_) ask();
  if (stage_ == Stage::Online && heard_ >= told_ + HEARD_PERIOD) {
    told_ = heard_;
    edges_.heard();
  }
  // A server with another key drops our proof and sends nothing back.
  if (stage_ == Stage::Shaking && channel_->awaits_proof() && now - heard_ > PROOF_TIME) {
    return fall(Reason::Silent, "psk-wrong");
  }
  const bool late = now - heard_ > (stage_ == Stage::Online ? SILENCE : LOGIN_TIME);
  if (late || channel_->state() == Channel::State::Ended) fall(Reason::Silent);
}

// For what the server owes: its answer to the login, later a sign of life.
void TunnelClient::ask() {
  if (stage_ == Stage::Asking) {
    channel_->send(
        encode(Login{PROTOCOL_VERSION, settings_.user, settings_.password, identifier_}));
    next_ = Clock::now() + LOGIN_REPEAT;
  } else {
    channel_->send(encode(Kind::Ping));
    next_ = Clock::now() + PING_PERIOD;
  }
}

// Whether trying again cannot help. Another login with a wrong password would block the account.
bool TunnelClient::is_final(const char* code) {
  const ormel::ReasonFacts* const facts = code ? ormel::find_reason(code) : nullptr;
  if (!facts || !facts->final) return false;
  return facts->code != WRONG_KEY || ++wrong_keys_ >= SURE_OF_KEY;
}

void TunnelClient::fall(Reason reason, const char* code) {
  log_line(LOG_NOTICE, "%s: %s", stage_ == Stage::Online ? "the tunnel is down" : "no tunnel",
           reason_text(reason));
  leave();
  const char* const noted = code ? code : code_of(reason);
  if (noted) edges_.failed(noted, code ? "" : reason_text(reason));
  if (is_final(noted) || !settings_.reconnect) {
    stage_ = Stage::Finished;
    return;
  }
  next_ = Clock::now() + pause_after(reason, attempts_++);
}

void TunnelClient::leave() {
  if (channel_) {
    if (stage_ == Stage::Online) channel_->send(encode(Kind::Bye, Reason::Left));
    channel_->end();
    socket_.flush();
    channel_.reset();
  }
  if (std::exchange(stage_, Stage::Waiting) != Stage::Online) return;
  tun_.down();
  edges_.down(std::exchange(traffic_, {}));
}

}  // namespace fenro::drovik
