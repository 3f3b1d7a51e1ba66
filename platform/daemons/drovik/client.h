// The client's end of one tunnel: it comes up, is watched, and comes up again.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "daemons/drovik/dtls.h"
#include "daemons/drovik/settings.h"
#include "daemons/drovik/tun.h"
#include "daemons/drovik/udp.h"

namespace fenro::drovik {

// Bytes of packets, while the tunnel was up.
struct Traffic {
  std::uint64_t received = 0;
  std::uint64_t sent = 0;
};

// What is to happen outside when the tunnel has come up or gone down. Calls return at once.
class Edges {
 public:
  Edges() = default;
  Edges(const Edges&) = delete;
  Edges& operator=(const Edges&) = delete;
  virtual ~Edges() = default;
  virtual void up(const Welcome& welcome, Ipv4 server) = 0;
  virtual void down(Traffic traffic) = 0;
  // An attempt or the tunnel has ended: a code of base/reason.h, and the text for people.
  virtual void failed(const char* code, const char* detail) = 0;
  virtual void heard() {}  // something has come from the server, said every few seconds
};

class TunnelClient {
 public:
  // With a `tun` that is not open the login is tried only: a session that is welcome ends at once.
  TunnelClient(ClientSettings settings, const Dtls& dtls, Tun tun, std::string identifier,
               Edges& edges);

  // Until `signals` can be read or the tunnel has ended for good. 0 after a signal.
  [[nodiscard]] int run(int signals);

 private:
  using Clock = std::chrono::steady_clock;
  enum class Stage { Waiting, Shaking, Asking, Online, Finished };

  void connect();
  [[nodiscard]] bool find_server();
  void take_datagrams();
  void take_message(std::string_view message);
  void take_control(std::string_view message);
  void come_up(const Welcome& welcome);
  void take_packets();
  void tick();
  void ask();
  void fall(Reason reason, const char* code = nullptr);
  [[nodiscard]] bool is_final(const char* code);
  void leave();

  ClientSettings settings_;
  const Dtls& dtls_;
  Tun tun_;
  std::string identifier_;
  Edges& edges_;
  UdpSocket socket_{};
  std::unique_ptr<Channel> channel_{};
  Stage stage_ = Stage::Waiting;
  Reason fallen_ = Reason::None;  // what the message at hand has brought about
  const char* cause_ = nullptr;   // why, where that reason does not say it
  Ipv4 server_ = 0;
  Traffic traffic_{};
  int wrong_keys_ = 0;         // attempts since the key was last seen to be right
  unsigned attempts_ = 0;      // since the tunnel was last up
  Clock::time_point next_{};   // of the next attempt, login or ping
  Clock::time_point heard_{};  // or begun
  Clock::time_point told_{};   // the last of heard_ that was passed on
};

}  // namespace fenro::drovik
