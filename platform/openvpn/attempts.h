// Finds out from the daemon's lines why the tunnel of a client profile is not up.
//
// An attempt ends when the daemon reconnects. Its reason is the first final one, else the first at
// all, so a daemon that repeats itself, however fast, is written down once. What is said while the
// tunnel is up becomes a reason only when the tunnel ends: a network that was away for a moment, or
// a packet that anyone can forge, does not end it.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "openvpn/signs.h"

namespace fenro::openvpn {

class Attempts {
 public:
  // Called with each reason, and with nothing when the tunnel has come up.
  using Note = std::function<void(const std::optional<Sign>& sign)>;
  using Time = std::chrono::steady_clock::time_point;

  explicit Attempts(Note note) : note_(std::move(note)) {}

  void take(std::string_view line, Time now);
  // To be called every few seconds: a server that refuses the profile's own certificate may say
  // nothing at all.
  void look(Time now);
  // The daemon has gone; what it said last is the reason.
  void end();

  // Another attempt cannot help: the server has refused the login, or each of the profile's servers
  // has met the daemon with a final reason, one of them twice.
  [[nodiscard]] bool over() const { return over_; }
  // Whether the last reason is final.
  [[nodiscard]] bool final() const;

 private:
  void note(const Sign& sign);
  void take_sign(std::string_view line, Sign sign);
  void come_up();
  void end_attempt();

  Note note_;
  std::string_view noted_{};        // in this attempt; one of the table's codes
  std::optional<Sign> last_{};      // said while the tunnel is up
  std::optional<Time> answered_{};  // in this attempt: when the server's first packet came
  bool up_ = false;
  bool own_expired_ = false;
  bool over_ = false;
  int remotes_ = 1;         // servers of the profile
  int final_attempts_ = 0;  // one after the other
};

}  // namespace fenro::openvpn
