// The signals that end a daemon.
#pragma once

#include <csignal>

namespace fenro {

// SIGTERM and SIGINT.
[[nodiscard]] inline sigset_t end_signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}

// Keeps them from the calling thread and all that it makes from now on, so that the owner of a
// descriptor for them gets them (bus::Server has one).
inline void block_end_signals() {
  const sigset_t set = end_signals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

}  // namespace fenro
