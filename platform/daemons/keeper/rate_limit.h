// How many notifications of a kind a target gets: 20 an hour, and then one that says how many there
// would have been.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace fenro::keeper {

class RateLimit {
 public:
  using Time = std::chrono::steady_clock::time_point;
  static constexpr int MOST = 20;
  static constexpr std::chrono::hours WINDOW{1};

  struct Summary {
    std::string key{};
    int held_back = 0;
  };

  // Whether one more of `key` may be sent. Counts it either way.
  [[nodiscard]] bool admit(const std::string& key, Time now);
  // The windows that have ended with something held back.
  [[nodiscard]] std::vector<Summary> ended(Time now);

 private:
  struct Window {
    Time begin{};
    int sent = 0;
    int held_back = 0;
  };
  std::map<std::string, Window> windows_;
};

}  // namespace fenro::keeper
