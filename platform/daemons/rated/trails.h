// The last rates of each client tunnel, for a small curve beside its figures. They outlive the
// pages that show them; nothing is stored in a file.
#pragma once

#include <cstdint>
#include <ctime>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "daemons/rated/connection_counters.h"
#include "daemons/rated/history.h"

namespace fenro::rated {

class Trails {
 public:
  static constexpr std::size_t KEPT = 60;  // rates of a tunnel: ten minutes

  // Takes a reading of the counters at `now`. Must be called about once in History::STEP seconds.
  // A tunnel without an interface is forgotten.
  void sample(const std::vector<Counters>& interfaces, std::time_t now);

  // The reply: {"error":0,"data":{"step":10,"tunnels":[{"type":TYPE,"index":INDEX,"rates":[bytes a
  // second in both directions, the oldest first...]}...]}}.
  [[nodiscard]] std::string reply() const;

 private:
  struct Trail {
    int type = 0, index = 0;
    Counters last{};
    std::deque<std::uint64_t> rates{};
    // No rate of a counter that is new, nor after a clock that was set back.
    void add(const Counters& now, std::time_t elapsed);
  };
  std::map<std::string, Trail, std::less<>> trails_{};
  std::time_t sampled_ = 0;
};

}  // namespace fenro::rated
