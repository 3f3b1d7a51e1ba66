// Waiting for what another process or thread does.
#pragma once

#include <chrono>
#include <thread>

namespace support {

// Returns whether the condition holds within some seconds of the clock. On a machine that is so busy that little
// runs in that time, it goes on until it has looked a few times a second.
template <typename Condition>
bool comes_true(Condition condition, int seconds = 10) {
  using Clock = std::chrono::steady_clock;
  constexpr auto PAUSE = std::chrono::milliseconds{20};
  constexpr int LOOKS_A_SECOND = 5;
  const auto end = Clock::now() + std::chrono::seconds{seconds};
  for (int looks = 0; looks < LOOKS_A_SECOND * seconds || Clock::now() < end; ++looks) {
    if (condition()) return true;
    std::this_thread::sleep_for(PAUSE);
  }
  return condition();
}

}  // namespace support
