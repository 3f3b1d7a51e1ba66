// Programs that the keeper runs beside its own work, in their own session, so that they
// outlive it.
#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "base/handle.h"

namespace fenro::keeper {

struct Ended {
  int status = 0;      // exit status, 128 and more after a signal
  std::string said{};  // the last line of its output
};

class Child {
 public:
  // Starts a program without input. Its output is kept in memory: daemons that it starts may hold
  // on to it.
  explicit Child(std::vector<std::string> words);
  // False when the program could not be started.
  explicit operator bool() const { return pid_ > 0; }
  // Nothing as long as it runs. To be called until it has ended, so that no zombie is left.
  [[nodiscard]] std::optional<Ended> poll();
  // Waits for the end.
  Ended wait();

 private:
  [[nodiscard]] Ended result(int status);
  pid_t pid_ = -1;
  Fd output_;
};

}  // namespace fenro::keeper
