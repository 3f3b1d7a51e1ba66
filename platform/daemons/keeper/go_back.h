// Changes that go back unless they are confirmed: a process waits for each, and the keeper for
// those whose process did not live to the end.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "daemons/keeper/child.h"

namespace fenro::keeper {

class GoBack {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit GoBack(std::string folder = "/var/lib/ormel/pending",
                  std::string tool = "/usr/sbin/ormelctl")
      : folder_(std::move(folder)), tool_(std::move(tool)) {}

  // What the last run of the host has left, before anything is started. Waits for the end.
  void boot();
  // Looks whether a time is over, every five seconds.
  void tick(Time now);

 private:
  [[nodiscard]] bool waits() const;
  void report(const Ended& ended);

  std::string folder_, tool_;
  std::string fault_{};  // of the last run
  std::unique_ptr<Child> child_;
  Time looked_{};
};

}  // namespace fenro::keeper
