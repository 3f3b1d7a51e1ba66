// Going to the background once the daemon can do its work, so that the script that starts it knows
// how it went.
#pragma once

#include "base/handle.h"

namespace fenro::drovik {

class Background {
 public:
  // To be called before threads and devices: goes on in a child in its own session, while the
  // parent waits for ready() and leaves with status 0, or with 1 when the child ends before.
  [[nodiscard]] bool begin();

  // Lets the parent go, and cuts the streams.
  void ready();

 private:
  Fd signal_;
};

}  // namespace fenro::drovik
