// How many strangers the server deals with: a handshake costs some milliseconds of arithmetic and some memory, which
// nobody has earned before the login. Only sources that have proved their address by a cookie get here.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <map>

#include "daemons/drovik/ipv4.h"

namespace fenro::drovik {

class Gate {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t PER_ADDRESS = 8;  // a household behind one address may all come at once
  static constexpr double PER_SECOND = 50;
  static constexpr double BURST = 50;

  // Whether a stranger from there may begin now; then it counts until leave().
  [[nodiscard]] bool enter(Ipv4 source, Clock::time_point now) {
    refill(now);
    const auto here = inside_.find(source);
    if (credit_ < 1 || (here != inside_.end() && here->second >= PER_ADDRESS)) return false;
    credit_ -= 1;
    ++inside_[source];
    return true;
  }

  void leave(Ipv4 source) {
    const auto here = inside_.find(source);
    if (here != inside_.end() && --here->second == 0) inside_.erase(here);
  }

 private:
  void refill(Clock::time_point now) {
    const std::chrono::duration<double> passed = now - filled_;
    credit_ = std::min(BURST, credit_ + passed.count() * PER_SECOND);
    filled_ = now;
  }

  double credit_ = BURST;
  Clock::time_point filled_{};
  std::map<Ipv4, std::size_t> inside_{};
};

}  // namespace fenro::drovik
