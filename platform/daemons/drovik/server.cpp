#include "daemons/drovik/server.h"

#include <algorithm>
#include <random>

#include <openssl/crypto.h>

#include "daemons/drovik/log.h"

namespace fenro::drovik {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds TICK{250};
constexpr seconds LOGIN_TIME{15};  // from the first datagram with a cookie to the login
constexpr seconds SILENCE{30};     // a client asks for a sign every ten
constexpr std::size_t CHECKS_AT_ONCE = 4;
constexpr int ROUNDS = 8;     // of batches from one side, before the other has its turn
constexpr int PACKETS = 256;  // the same for the interface
constexpr std::uint64_t RECORDS_MAX = std::uint64_t{1} << 32;  // far below what one key may protect
constexpr char HANDSHAKE_RECORD = 22;  // first byte of a datagram that may begin something

}  // namespace

TunnelServer::TunnelServer(ServerSettings settings, const Dtls& dtls, UdpSocket socket, Tun tun,
                           RefusalOf refusal_of)
    : settings_(std::move(settings)),
      dtls_(dtls),
      socket_(std::move(socket)),
      tun_(std::move(tun)),
      refusal_of_(std::move(refusal_of)),
      gate_(std::random_device{}()),
      roster_(settings_.first, settings_.last, settings_.maximum),
      listener_(make_channel()),
      checks_(CHECKS_AT_ONCE) {}

TunnelServer::~TunnelServer() = default;

void TunnelServer::attach(bus::Server& bus) {
  bus.watch(socket_.fd(), [this] { take_datagrams(); });
  bus.watch(tun_.fd(), [this] { take_packets(); });
  bus.watch(checks_.fd(), [this] {
    checks_.run_results();
    reap();
    socket_.flush();
  });
  bus.every(TICK, [this] { tick(); });
  bus.on("disconnect", [this](std::string_view body) { return disconnect(body); });
  bus.on("bytes_info", [this](std::string_view) { return bytes_info(); });
}

std::unique_ptr<Channel> TunnelServer::make_channel() {
  return std::make_unique<Channel>(
      dtls_, [this](const Peer& to, std::string_view datagram) { socket_.send(to, datagram); });
}

TunnelServer::Session* TunnelServer::find(SessionId id) {
  const auto session = sessions_.find(id);
  return session == sessions_.end() || session->second.gone ? nullptr : &session->second;
}

void TunnelServer::take_datagrams() {
  const UdpSocket::Take take = [this](const Peer& from, std::string_view datagram) {
    take_datagram(from, datagram);
  };
  for (int round = 0; round < ROUNDS && socket_.receive(take); ++round) reap();
  socket_.flush();
}

void TunnelServer::take_datagram(const Peer& from, std::string_view datagram) {
  const auto known = by_peer_.find(from.key());
  if (known == by_peer_.end()) return take_stranger(from, datagram);
  Session* session = find(known->second);
  if (!session) return;
  session->channel->receive(
      datagram, [this, session](std::string_view message) { take_message(*session, message); });
  if (session->stage == Stage::Shaking && session->channel->state() == Channel::State::Open)
    session->stage = Stage::Silent;
  if (session->channel->state() == Channel::State::Ended) end(*session, Reason::Left);
}

void TunnelServer::take_stranger(const Peer& from, std::string_view datagram) {
  const Clock::time_point now = Clock::now();
  if (datagram.front() != HANDSHAKE_RECORD || !gate_.hear(from.address, now) ||
      !listener_->listen(from, datagram))
    return;
  // Also for a peer that is refused now: the channel is in the middle of its handshake, and may
  // have ended with it.
  std::unique_ptr<Channel> channel = std::exchange(listener_, make_channel());
  const bool full = gate_.is_full(from.address);
  if (!gate_.enter(from.address, now)) {
    log_line(LOG_DEBUG, "%s is refused: too many logins at once", to_text(from.address).c_str());
    return;
  }
  if (full && !make_room(from.address)) return gate_.leave(from.address);
  by_peer_[from.key()] = ++last_id_;
  sessions_[last_id_] = {last_id_, std::move(channel), Stage::Shaking, Clock::now()};
}

// Ends the oldest handshake, so that slow clients do not shut others out. A client whose address is
// unknown does not displace one from a known address.
bool TunnelServer::make_room(Ipv4 newcomer) {
  Session* oldest = nullptr;
  for (auto& [id, session] : sessions_) {
    const bool shaking =
        !session.gone && (session.stage == Stage::Shaking || session.stage == Stage::Silent);
    if (!shaking) continue;
    const bool known = gate_.is_known(session.channel->peer().address);
    if (known && !gate_.is_known(newcomer)) continue;
    const bool oldest_known = oldest && gate_.is_known(oldest->channel->peer().address);
    if (!oldest || (oldest_known && !known) ||
        (oldest_known == known && session.heard < oldest->heard))
      oldest = &session;
  }
  if (oldest) end(*oldest, Reason::Full);
  return oldest != nullptr;
}

void TunnelServer::take_message(Session& session, std::string_view message) {
  if (session.gone) return;
  if (!is_packet(message)) return take_control(session, message);
  if (session.stage != Stage::Online || message.size() > TUNNEL_MTU) return;
  session.heard = Clock::now();
  const auto ends = packet_ends(message);
  if (!ends || ends->source != session.address) return;  // a session sends by its own address alone
  session.bytes.received += message.size();
  tun_.write(message);
}

void TunnelServer::take_control(Session& session, std::string_view message) {
  switch (kind_of(message)) {
    case Kind::Login: return take_login(session, message);
    case Kind::Ping:
      if (session.stage != Stage::Online) return;
      session.heard = Clock::now();
      return session.channel->send(encode(Kind::Pong));
    case Kind::Bye: return end(session, Reason::Left);
    default: return;
  }
}

// The client repeats its login until it is answered, so all but the first only ask for the answer
// again.
void TunnelServer::take_login(Session& session, std::string_view message) {
  if (session.stage == Stage::Online) return welcome(session);
  if (session.stage == Stage::Checking) return;
  Login login;
  if (!decode(message, login)) return refuse(session, Reason::Denied);
  if (login.version != PROTOCOL_VERSION) return refuse(session, Reason::Version);
  session.stage = Stage::Checking;
  session.user = login.user;
  session.bytes.identifier = login.identifier;
  checks_.submit([this, id = session.id, login = std::move(login)]() mutable -> Workers::Then {
    const std::string refusal = refusal_of_(login);
    OPENSSL_cleanse(login.password.data(), login.password.size());
    return [this, id, refusal] { finish_login(id, refusal); };
  });
}

void TunnelServer::finish_login(SessionId id, const std::string& refusal) {
  Session* session = find(id);
  if (!session) return;
  if (!refusal.empty()) return refuse(*session, Reason::Denied, refusal);
  const Roster::Entry entry = roster_.admit(id, session->user, session->bytes.identifier);
  if (entry.refused != Reason::None) return refuse(*session, entry.refused);
  if (Session* old = find(entry.replaced)) end(*old, Reason::Replaced);
  session->stage = Stage::Online;
  session->address = entry.address;
  session->heard = Clock::now();
  session->since = std::time(nullptr);
  gate_.leave(session->channel->peer().address);
  gate_.remember(session->channel->peer().address);
  note_begin(*session);
  welcome(*session);
}

void TunnelServer::welcome(Session& session) {
  session.channel->send(encode(Welcome{session.address, settings_.gateway, settings_.prefix,
                                       TUNNEL_MTU, settings_.name_servers}));
}

void TunnelServer::refuse(Session& session, Reason reason, const std::string& why) {
  const std::string said = why.empty() ? reason_text(reason) : why;
  log_line(LOG_NOTICE, "login from %s refused: %s",
           to_text(session.channel->peer().address).c_str(), said.c_str());
  if (!session.user.empty()) note_refusal(session, said);
  session.channel->send(encode(Kind::Refuse, reason));
  end(session, Reason::None);
}

void TunnelServer::take_packets() {
  char buffer[MESSAGE_MAX];
  for (int i = 0; i < PACKETS; ++i) {
    const std::string_view packet = tun_.read(buffer);
    if (packet.empty()) break;
    const auto ends = packet_ends(packet);
    Session* session = ends ? find(roster_.at(ends->destination)) : nullptr;
    if (!session) continue;
    session->bytes.sent += packet.size();
    session->channel->send(packet);
  }
  socket_.flush();
}

void TunnelServer::tick() {
  const Clock::time_point now = Clock::now();
  for (auto& [id, session] : sessions_) {
    if (session.gone) continue;
    session.channel->tick();
    const bool online = session.stage == Stage::Online;
    // A check that takes long is not the client's fault; it ends by itself.
    const bool late =
        session.stage != Stage::Checking && now - session.heard > (online ? SILENCE : LOGIN_TIME);
    if (late || session.channel->state() == Channel::State::Ended) {
      end(session, Reason::Silent);
    } else if (session.channel->records() > RECORDS_MAX) {
      end(session, Reason::Worn);
    }
  }
  reap();
  socket_.flush();
}

// The session stays until reap(), since the caller may be in the middle of its messages.
void TunnelServer::end(Session& session, Reason reason) {
  if (session.gone) return;
  session.gone = true;
  ended_.push_back(session.id);
  const Peer& peer = session.channel->peer();
  if (session.stage == Stage::Online) {
    roster_.leave(session.id);
    note_end(session);
    if (reason != Reason::Left) session.channel->send(encode(Kind::Bye, reason));
    log_line(LOG_INFO, "%s on %s has gone: %s", session.user.c_str(),
             to_text(session.address).c_str(), reason_text(reason));
  } else {
    gate_.leave(peer.address);
    log_line(LOG_DEBUG, "login from %s abandoned", to_text(peer.address).c_str());
  }
  session.channel->end();
  by_peer_.erase(peer.key());
}

void TunnelServer::reap() {
  for (const SessionId id : ended_) sessions_.erase(id);
  ended_.clear();
}

void TunnelServer::stop() {
  for (auto& [id, session] : sessions_) end(session, Reason::Stopping);
  socket_.flush();
  reap();
  notes_.finish();
}

}  // namespace fenro::drovik
