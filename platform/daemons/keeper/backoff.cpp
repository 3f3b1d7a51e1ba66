#include "daemons/keeper/backoff.h"

#include <algorithm>

namespace fenro::keeper {

void Backoff::died(Time now, std::chrono::seconds settle) {
  settled_ = now + settle;
}

void Backoff::attempt(Time now) {
  const bool fresh = !attempted_ || now - attempt_ >= STEADY;
  pause_ = fresh ? FIRST : std::min(2 * pause_, LONGEST);
  attempt_ = now;
  attempted_ = true;
}

void Backoff::restarted(Time now) {
  restarts_.push_back(now);
  if (restarts_.size() > MOST_RESTARTS) restarts_.pop_front();
}

Backoff::Time Backoff::due() const {
  return attempted_ ? std::max(settled_, attempt_ + pause_) : settled_;
}

bool Backoff::given_up(Time now) const {
  return restarts_.size() == MOST_RESTARTS && now - restarts_.front() < WINDOW;
}

}  // namespace fenro::keeper
