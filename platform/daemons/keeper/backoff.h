// When something that has died may be started again.
#pragma once

#include <chrono>
#include <deque>

namespace fenro::keeper {

// One server or client tunnel. The pause after an attempt is 5 seconds, then 10, 20 and so on up to
// 300; after 15 minutes without an attempt it is 5 again. What starts well and dies again and again
// is given up.
class Backoff {
 public:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;

  static constexpr std::chrono::seconds FIRST{5};
  static constexpr std::chrono::seconds LONGEST{300};
  static constexpr std::chrono::minutes STEADY{15};
  static constexpr std::chrono::minutes WINDOW{10};
  static constexpr std::size_t MOST_RESTARTS = 5;  // within the window

  // It has been seen to be dead. Its hooks and attendants have some time before the first attempt.
  void died(Time now, std::chrono::seconds settle);
  // An attempt to start it has begun.
  void attempt(Time now);
  // An attempt has started it.
  void restarted(Time now);

  // When the next attempt is due. Valid after died().
  [[nodiscard]] Time due() const;
  // Whether it has been restarted too often of late.
  [[nodiscard]] bool given_up(Time now) const;

 private:
  Time settled_{};
  Time attempt_{};
  bool attempted_ = false;
  std::chrono::seconds pause_{0};  // after the last attempt
  std::deque<Time> restarts_;      // oldest first, MOST_RESTARTS at most
};

}  // namespace fenro::keeper
