// Runs the program's check of certificates regularly: which of them end soon, and what is due at
// the OpenVPN server.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "daemons/keeper/child.h"

namespace fenro::keeper {

class Certificates {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit Certificates(Time now, std::string tool = "/usr/sbin/ormelctl")
      : tool_(std::move(tool)), due_(now + FIRST) {}
  void tick(Time now);

 private:
  // Late enough for the servers to have started, and often enough for several runs a night.
  static constexpr std::chrono::seconds FIRST{20};
  static constexpr std::chrono::minutes PERIOD{15};

  void report(const Ended& ended);

  std::string tool_, fault_;
  Time due_;
  std::unique_ptr<Child> child_;
};

}  // namespace fenro::keeper
