// Threads for what may take its time (a password check, a file, another daemon), so that packets
// never wait for it.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "base/handle.h"

namespace fenro::drovik {

class Workers {
 public:
  using Then = std::function<void()>;  // what the owner's thread does with the result; may be empty
  using Job = std::function<Then()>;

  // With one thread, jobs are done in the order in which they come. The signals that are to end the
  // daemon must be blocked by then: threads inherit that.
  explicit Workers(std::size_t threads);
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;
  ~Workers() { finish(); }

  void submit(Job job);

  // Can be read when results wait for run_results(), which the owner's thread calls.
  [[nodiscard]] int fd() const { return wake_.get(); }
  void run_results();

  // Does what was submitted, then ends the threads.
  void finish();

 private:
  void work();

  Fd wake_;
  std::mutex mutex_{};
  std::condition_variable some_{};
  std::deque<Job> jobs_{};
  std::vector<Then> results_{};
  bool last_ = false;
  std::vector<std::jthread> threads_{};  // last: they use all the rest
};

}  // namespace fenro::drovik
