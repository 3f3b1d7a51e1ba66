// Who may change the state of the service at this moment: changes go on beside each other, while
// settings that go back have it for themselves.
#pragma once

#include <string>

#include "ormel/base/handle.h"

namespace ormel::changes {

enum class Turn {
  CHANGE,   // beside other changes
  GO_BACK,  // no change runs
  DECIDE,   // what becomes of a change that waits for its confirmation, or of a restore
};

// From now on, each lock that has waited for two seconds calls `report` once with what it waits
// for.
void report_long_waits(void (*report)(const char* what));

// The turn, as long as it lives. Never taken twice by one process, but GO_BACK with DECIDE.
class StateLock {
 public:
  // Waits up to two seconds for a change, up to ten for anything else.
  explicit StateLock(Turn turn, const std::string& root = {});
  explicit operator bool() const { return static_cast<bool>(fd_); }

 private:
  Fd fd_;
};

}  // namespace ormel::changes
