// What the platform's tests share: programs run with their output, children, and a private host.
#pragma once

#include <cstdlib>
#include <iterator>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <fenro/mibservice.h>

#include "base/bus_handle.h"
#include "base/handle.h"
#include "support/scratch_file.h"

namespace fenro::test {

inline std::string text_of(mib_io* io) {
  std::size_t length = 0;
  const char* const bytes = mib_io_read(io, &length);
  return {bytes, length};
}

using support::Scratch;

struct Outcome {
  int status = -1;
  std::string out{}, err{};
};

inline Outcome run(const std::vector<std::string>& words) {
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  const MibIo out{mib_io_create()};
  const MibIo err{mib_io_create()};
  const int status = mib_io_execv(nullptr, out.get(), err.get(), argv.data());
  return {status, text_of(out.get()), text_of(err.get())};
}

// The exit status of a child, -1 for one that a signal has ended.
inline int end_of(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

constexpr int NO_NAMESPACE = 99;  // a child's status when the kernel denies it what the test needs

// Runs `body` in a child that has the scratch folder in the place of the host's /run and /var/lib.
// Its exit status, or -1 where the kernel gives no such namespace.
template <typename Body>
int in_private_host(const Scratch& scratch, Body body) {
  const pid_t child = fork();
  if (child == 0) {
    const int flags = geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER;
    bool ready =
        unshare(flags) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    for (const char* place : {"/run", "/var/lib"})
      ready = ready && mount(scratch.path("").c_str(), place, nullptr, MS_BIND, nullptr) == 0;
    _exit(ready ? body() : NO_NAMESPACE);
  }
  const int status = end_of(child);
  return status == NO_NAMESPACE ? -1 : status;
}

}  // namespace fenro::test
