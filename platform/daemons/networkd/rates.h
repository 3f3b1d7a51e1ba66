// Transfer rates of interfaces, from counters that are read about once a second.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "daemons/networkd/rtnetlink.h"

namespace fenro::networkd {

struct Rate {  // bytes a second
  std::uint64_t rx = 0;
  std::uint64_t tx = 0;
};

class Rates {
 public:
  using Clock = std::chrono::steady_clock;

  // Takes a reading of all interfaces. An interface that is not among them is forgotten.
  void sample(const std::vector<Link>& links, Clock::time_point now);

  // Between the last two readings; zero for an interface that has not been read twice.
  [[nodiscard]] Rate of(std::string_view interface) const;

 private:
  struct Reading {
    int index = 0;  // a new interface under an old name starts afresh
    std::uint64_t rx_bytes = 0;
    std::uint64_t tx_bytes = 0;
    Clock::time_point when;
    Rate rate;
  };
  [[nodiscard]] static Rate between(const Reading& before, const Link& link, Clock::time_point now);

  std::map<std::string, Reading, std::less<>> readings_;
};

}  // namespace fenro::networkd
