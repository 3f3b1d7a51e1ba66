// A process that outlives this one to say that it has ended too early.
#pragma once

#include <functional>

#include "ormel/base/handle.h"

namespace ormel::audit {

class Witness {
 public:
  Witness() = default;  // no process
  // Starts a process that calls `work` when this one ends, in whatever way, before `release`.
  explicit Witness(const std::function<void()>& work);
  void release();

 private:
  Fd alive_;  // closed by the kernel when this process ends
};

}  // namespace ormel::audit
