#include "daemons/drovik/gate.h"

#include <algorithm>

namespace fenro::drovik {
namespace {

struct Limit {
  double per_second;
  double most;
};
// A client repeats its first datagram after 1, 2, 4 … seconds.
constexpr Limit HELLOS_OF_ADDRESS{4, 32};
constexpr Limit HELLOS_UNKNOWN{100, 100};
constexpr Limit HELLOS_KNOWN{100, 100};
constexpr Limit ENTRIES_OF_ADDRESS{2, 16};
constexpr Limit ENTRIES_UNKNOWN{30, 30};
constexpr Limit ENTRIES_KNOWN{20, 20};

bool spend_both(Budget& address, Limit of_address, Budget& total, Limit of_all,
                Budget::Clock::time_point now) {
  // An address that has spent its own budget must not use up that of all.
  return address.spend(of_address.per_second, of_address.most, now) &&
         total.spend(of_all.per_second, of_all.most, now);
}

}  // namespace

bool Budget::has(double per_second, double most, Clock::time_point now) {
  const std::chrono::duration<double> passed = now - filled_;
  left_ = left_ < 0 ? most : std::min(most, left_ + passed.count() * per_second);
  filled_ = now;
  return left_ >= 1;
}

bool Budget::spend(double per_second, double most, Clock::time_point now) {
  if (!has(per_second, most, now)) return false;
  left_ -= 1;
  return true;
}

std::size_t Gate::slot(Ipv4 source) const {
  constexpr std::uint64_t MIX = 0x9E3779B97F4A7C15U;
  const std::uint64_t hash = (seed_ ^ source) * MIX;
  return static_cast<std::size_t>((hash ^ hash >> 29U) * MIX >> 52U) % SLOTS;
}

bool Gate::hear(Ipv4 source, Clock::time_point now) {
  const bool known = is_known(source);
  return spend_both(addresses_[slot(source)].hellos, HELLOS_OF_ADDRESS,
                    known ? known_total_.hellos : unknown_total_.hellos,
                    known ? HELLOS_KNOWN : HELLOS_UNKNOWN, now);
}

bool Gate::enter(Ipv4 source, Clock::time_point now) {
  const bool known = is_known(source);
  const auto here = inside_.find(source);
  if (here != inside_.end() && here->second >= PER_ADDRESS) return false;
  if (!spend_both(addresses_[slot(source)].entries, ENTRIES_OF_ADDRESS,
                  known ? known_total_.entries : unknown_total_.entries,
                  known ? ENTRIES_KNOWN : ENTRIES_UNKNOWN, now))
    return false;
  ++inside_[source];
  ++inside_total_;
  if (!known) ++inside_unknown_;
  return true;
}

void Gate::leave(Ipv4 source) {
  const auto here = inside_.find(source);
  if (here == inside_.end()) return;
  if (--here->second == 0) inside_.erase(here);
  --inside_total_;
  if (!is_known(source) && inside_unknown_ > 0) --inside_unknown_;
}

bool Gate::is_full(Ipv4 source) const {
  return inside_total_ >= STRANGERS_MAX || (!is_known(source) && inside_unknown_ >= UNKNOWN_MAX);
}

void Gate::remember(Ipv4 source) {
  if (!known_.insert(source).second) return;
  // Its handshakes of now no longer count as those of strangers.
  if (const auto here = inside_.find(source); here != inside_.end())
    inside_unknown_ -= std::min(inside_unknown_, here->second);
  known_order_.push_back(source);
  if (known_order_.size() <= REMEMBERED) return;
  const Ipv4 oldest = known_order_.front();
  known_order_.pop_front();
  known_.erase(oldest);
  if (const auto here = inside_.find(oldest); here != inside_.end())
    inside_unknown_ += here->second;
}

}  // namespace fenro::drovik
