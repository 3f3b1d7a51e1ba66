#include "daemons/drovik/workers.h"

#include <sys/eventfd.h>
#include <utility>

namespace fenro::drovik {

Workers::Workers(std::size_t threads) : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  for (std::size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { work(); });
}

void Workers::submit(Job job) {
  {
    const std::lock_guard lock{mutex_};
    jobs_.push_back(std::move(job));
  }
  some_.notify_one();
}

void Workers::run_results() {
  eventfd_t count = 0;
  eventfd_read(wake_.get(), &count);
  std::vector<Then> results;
  {
    const std::lock_guard lock{mutex_};
    results.swap(results_);
  }
  for (const Then& result : results) result();
}

void Workers::finish() {
  {
    const std::lock_guard lock{mutex_};
    last_ = true;
  }
  some_.notify_all();
  threads_.clear();  // joins
}

void Workers::work() {
  for (;;) {
    Job job;
    {
      std::unique_lock lock{mutex_};
      some_.wait(lock, [this] { return last_ || !jobs_.empty(); });
      if (jobs_.empty()) return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    Then then = job();
    if (!then) continue;
    {
      const std::lock_guard lock{mutex_};
      results_.push_back(std::move(then));
    }
    eventfd_write(wake_.get(), 1);
  }
}

}  // namespace fenro::drovik
