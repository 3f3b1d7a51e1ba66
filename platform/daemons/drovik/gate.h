// Limits what the server spends on strangers. A handshake costs about a millisecond of arithmetic
// and some memory for each step, and anyone can send its first datagram with any source address.
//
// Each step has a limit for each address and one in total. Addresses from which a user has logged
// in before have their own share, which a flood from other addresses cannot use up.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <set>

#include "daemons/drovik/ipv4.h"

namespace fenro::drovik {

// A budget that refills with time.
class Budget {
 public:
  using Clock = std::chrono::steady_clock;

  // Spends one unit. Returns false when none is left.
  [[nodiscard]] bool spend(double per_second, double most, Clock::time_point now);
  // Returns whether a unit is left, without spending it.
  [[nodiscard]] bool has(double per_second, double most, Clock::time_point now);

 private:
  double left_ = -1;  // full before the first use
  Clock::time_point filled_{};
};

class Gate {
 public:
  using Clock = Budget::Clock;
  static constexpr std::size_t PER_ADDRESS =
      8;  // handshakes at once; several clients can share an address
  static constexpr std::size_t STRANGERS_MAX = 64;  // handshakes at once in total
  static constexpr std::size_t UNKNOWN_MAX = 48;   // of these from addresses without a login before
  static constexpr std::size_t REMEMBERED = 1024;  // addresses of former logins

  // `seed` keeps a sender from choosing addresses that share a budget.
  explicit Gate(std::uint64_t seed) : seed_(seed) {}

  // Returns whether a stranger's datagram may be answered, before any arithmetic is done for it.
  [[nodiscard]] bool hear(Ipv4 source, Clock::time_point now);

  // Returns whether a stranger that has proved its address may begin a handshake; it counts until
  // leave().
  [[nodiscard]] bool enter(Ipv4 source, Clock::time_point now);
  void leave(Ipv4 source);

  // Returns whether a handshake must make room for one from `source`.
  [[nodiscard]] bool is_full(Ipv4 source) const;
  [[nodiscard]] bool is_known(Ipv4 source) const { return known_.count(source) != 0; }

  // Remembers an address from which a user has logged in.
  void remember(Ipv4 source);

 private:
  static constexpr std::size_t SLOTS = 4096;  // a power of two; addresses share slots
  struct Share {
    Budget hellos, entries;
  };
  [[nodiscard]] std::size_t slot(Ipv4 source) const;

  std::uint64_t seed_;
  std::array<Share, SLOTS> addresses_{};
  Share unknown_total_{}, known_total_{};
  std::map<Ipv4, std::size_t> inside_{};
  std::size_t inside_total_ = 0, inside_unknown_ = 0;
  std::set<Ipv4> known_{};
  std::deque<Ipv4> known_order_{};
};

}  // namespace fenro::drovik
