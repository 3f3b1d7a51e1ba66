// Access until a date: the keeper revokes expired rights through the program that administrators
// use. The servers refuse logins on their own from that second on.
#pragma once

#include <chrono>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>

#include "base/grants.h"
#include "daemons/keeper/child.h"
#include "daemons/keeper/events.h"

namespace fenro::keeper {

class Grants {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit Grants(Reporter report, std::string file = GRANTS,
                  std::string tool = "/usr/sbin/ormelctl")
      : report_(std::move(report)), file_(std::move(file)), tool_(std::move(tool)) {}

  // Revokes what ended while the host was off, before anything is started. Waits for the tool.
  void boot();
  // To be called once a second. Repeats what failed, and what has come back.
  void tick(Time now);

 private:
  void read_when_changed();
  void report_ended();
  [[nodiscard]] bool is_due() const { return next_ != 0 && std::time(nullptr) >= next_; }

  Reporter report_;
  std::string file_, tool_;
  std::optional<struct stat> seen_;  // of the file, as it was read; all zero for a missing one
  bool copied_ = true;               // an older copy would lack ends: tried until it is made
  std::int64_t next_ = 0;            // end, 0 for none
  bool damaged_ = false;
  std::map<std::string, std::uint32_t>
      reported_;  // servers by user, as long as they are in the file
  std::unique_ptr<Child> child_;
  Time tried_{};
};

}  // namespace fenro::keeper
