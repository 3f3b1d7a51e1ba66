// The latest reports, for the web interface's bell. They go with the daemon; the event log keeps
// them longer.
#pragma once

#include <cstddef>
#include <ctime>
#include <deque>

#include "common/json.h"
#include "daemons/keeper/events.h"

namespace fenro::keeper {

class Recent {
 public:
  static constexpr std::size_t MOST = 100;

  void add(const Report& report, std::time_t now);
  // Newest first: "at", "event", "level", "subject", "text" and "reason".
  [[nodiscard]] Json show() const;

 private:
  struct Entry {
    Report report;
    std::time_t at;
  };
  std::deque<Entry> entries_;  // newest first
};

}  // namespace fenro::keeper
