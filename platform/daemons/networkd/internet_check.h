// Whether the internet is there: the appliance's own cloud takes a connection.
#pragma once

#include <chrono>
#include <future>

namespace fenro::networkd {

class InternetCheck {
 public:
  enum class State { WORKING, REACHED, FAILED };

  // Begins a check unless one is at work, and waits a moment for it: most are done by then. A
  // caller that gets WORKING asks again.
  [[nodiscard]] State ask();

 private:
  void begin();

  std::future<bool> outcome_{};
  std::chrono::steady_clock::time_point begun_{};
};

}  // namespace fenro::networkd
