// Counters and rates of the live connections, taken from the list of online users and keyed as in
// that list.
//
// Readings are taken only while clients ask, so that an idle appliance does not wake up and the
// servers' logs do not fill with management connections. The first answer after a pause therefore
// has no rates.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "common/online_users.h"
#include "daemons/networkd/rates.h"
#include "daemons/rated/connection_counters.h"

namespace fenro::rated {

// The sources of the readings.
struct Sources {
  std::function<std::vector<OnlineUser>()> users;
  std::function<std::vector<Counters>()> interfaces;
  std::function<std::vector<Counters>()> openvpn;
  std::function<std::vector<Counters>()> drovik;
};

class RateServer {
 public:
  using Clock = std::chrono::steady_clock;

  explicit RateServer(Sources sources) : sources_(std::move(sources)) {}

  // The reply: {"error":0,"data":[{"key":..., "rx_bytes":..., "tx_bytes":..., "rx_rate":...,
  // "tx_rate":...}...]}.
  [[nodiscard]] std::string all_server_stat(Clock::time_point now);

  // Must be called about once a second.
  void tick(Clock::time_point now);

 private:
  void refresh(Clock::time_point now);
  [[nodiscard]] std::vector<Counters> read() const;

  Sources sources_;
  std::vector<Counters> counters_{};
  networkd::Rates rates_{};
  Clock::time_point read_at_{};
  Clock::time_point asked_at_{};
  bool has_read_ = false;
  bool was_asked_ = false;
};

}  // namespace fenro::rated
