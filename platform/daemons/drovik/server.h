// The server's end of all tunnels: strangers, logins, packets, and what the bus asks.
#pragma once

#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/connection_log.h"
#include "daemons/drovik/dtls.h"
#include "daemons/drovik/gate.h"
#include "daemons/drovik/roster.h"
#include "daemons/drovik/settings.h"
#include "daemons/drovik/tun.h"
#include "daemons/drovik/udp.h"
#include "daemons/drovik/workers.h"
#include "libmibservice/mibserver.h"

namespace fenro::drovik {

struct ClientBytes {
  std::string identifier;
  std::uint64_t received = 0;
  std::uint64_t sent = 0;
};
// The reply to "bytes_info".
[[nodiscard]] std::string bytes_reply(const std::vector<ClientBytes>& clients);

class TunnelServer {
 public:
  // The reason for refusing a login, empty for one that is admitted. Called on a separate thread.
  using RefusalOf = std::function<std::string(const Login& login)>;

  // `socket` listens, and `tun` is up, for as long as the object lives.
  TunnelServer(ServerSettings settings, const Dtls& dtls, UdpSocket socket, Tun tun,
               RefusalOf refusal_of);
  ~TunnelServer();
  TunnelServer(const TunnelServer&) = delete;
  TunnelServer& operator=(const TunnelServer&) = delete;

  // Packets, time and the methods "disconnect" and "bytes_info".
  void attach(bus::Server& bus);

  // Says good-bye to all, and returns when all of it has been noted.
  void stop();

 private:
  using Clock = std::chrono::steady_clock;
  enum class Stage { Shaking, Silent, Checking, Online };  // Silent: no login has come yet
  struct Session {
    SessionId id = 0;
    std::unique_ptr<Channel> channel;
    Stage stage = Stage::Shaking;
    Clock::time_point heard;  // or, before the login, begun
    std::string user{};
    ClientBytes bytes{};
    Ipv4 address = 0;
    std::time_t since = 0;
    bool gone = false;
  };

  void take_datagrams();
  void take_datagram(const Peer& from, std::string_view datagram);
  void take_stranger(const Peer& from, std::string_view datagram);
  [[nodiscard]] bool make_room(Ipv4 newcomer);
  void take_message(Session& session, std::string_view message);
  void take_control(Session& session, std::string_view message);
  void take_login(Session& session, std::string_view message);
  void finish_login(SessionId id, const std::string& refusal);
  void welcome(Session& session);
  void refuse(Session& session, Reason reason, const std::string& why = {});
  void take_packets();
  void tick();
  void end(Session& session, Reason reason);
  void reap();
  void note_begin(const Session& session);
  void note_end(const Session& session);
  void note_refusal(const Session& session, const std::string& why);
  [[nodiscard]] OnlineUser record_of(const Session& session) const;
  [[nodiscard]] std::unique_ptr<Channel> make_channel();
  [[nodiscard]] Session* find(SessionId id);
  [[nodiscard]] bus::Reply disconnect(std::string_view body);
  [[nodiscard]] bus::Reply bytes_info();

  ServerSettings settings_;
  const Dtls& dtls_;
  UdpSocket socket_;
  Tun tun_;
  RefusalOf refusal_of_;
  Gate gate_;
  Roster roster_;
  std::unique_ptr<Channel> listener_;  // answers strangers
  std::unordered_map<SessionId, Session> sessions_{};
  std::unordered_map<std::uint64_t, SessionId> by_peer_{};
  std::vector<SessionId> ended_{};
  SessionId last_id_ = 0;
  Workers checks_;
  Workers notes_{1};  // one, so that a session's end is noted after its begin
};

}  // namespace fenro::drovik
