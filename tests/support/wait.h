// Waiting for what another process or thread does.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace support {

// Returns how much longer than on a host everything may take: 1, or what tests/vm/run sets in an
// emulated machine.
inline int patience() {
  static const int factor = [] {
    const char* set = std::getenv("TEST_PATIENCE");
    return set ? static_cast<int>(std::clamp(std::strtol(set, nullptr, 10), 1L, 100L)) : 1;
  }();
  return factor;
}

// Returns whether the condition holds within some seconds of the clock. On a machine that is so
// busy that little runs in that time, it goes on until it has looked a few times a second. An
// emulated machine has more time, and looks less often, since each look takes time from what it
// waits for.
template <typename Condition>
bool comes_true(Condition condition, int seconds = 10) {
  using Clock = std::chrono::steady_clock;
  const bool emulated = patience() > 1;
  const auto pause = std::chrono::milliseconds{emulated ? 1500 : 20};
  const int least_looks = emulated ? 0 : 5 * seconds;
  const auto end = Clock::now() + std::chrono::seconds{seconds} * patience();
  for (int looks = 0; looks < least_looks || Clock::now() < end; ++looks) {
    if (condition()) return true;
    std::this_thread::sleep_for(pause);
  }
  return condition();
}

}  // namespace support
