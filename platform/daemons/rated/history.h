// What each protocol has carried, by its servers and its tunnels: rates over steps of ten seconds
// for the last hour, and over five minutes for the last day. The counters are those of the
// interfaces; nothing is stored in a file.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/tunnel.h"
#include "common/online_users.h"
#include "daemons/rated/connection_counters.h"

namespace fenro::rated {

class History {
 public:
  static constexpr std::time_t STEP = 10;  // seconds
  static constexpr std::time_t LONG_STEP = 300;
  static constexpr std::time_t HOUR = 3600;
  static constexpr std::time_t DAY = std::time_t{24} * HOUR;
  using Users = std::function<std::vector<OnlineUser>()>;

  explicit History(Users users) : users_(std::move(users)) {}

  // Takes a reading of the counters at `now` (seconds since the epoch). Must be called about once
  // in STEP seconds.
  void sample(const std::vector<Counters>& interfaces, std::time_t now);

  // The reply for the last `span` seconds, in steps of STEP up to an hour:
  // {"error":0,"data":{"step":10,"types":[TYPE...],"rows":[[TIME, received bytes a second by
  // type..., sent...]...]}}.
  [[nodiscard]] std::string reply(std::time_t span, std::time_t now) const;

 private:
  static constexpr std::size_t KINDS = std::size(ormel::TUNNELS);
  struct Amounts {
    std::array<std::uint64_t, KINDS> received{}, sent{};
    void add(const Amounts& other);
  };
  struct Row {
    std::time_t time = 0;
    Amounts rates;
  };
  // Collects bytes until a step is full.
  struct Ring {
    std::time_t step, kept;
    Amounts bytes{};
    std::time_t begun = 0;
    std::deque<Row> rows{};
    void add(const Amounts& more, std::time_t now);
  };

  [[nodiscard]] Amounts since_last(const std::vector<Counters>& interfaces);

  Users users_;
  std::map<std::string, Counters, std::less<>> last_{};
  Ring hour_{STEP, HOUR};
  Ring day_{LONG_STEP, DAY};
};

// The index of the client profile of that protocol whose interface it is; 0 for any other
// interface.
[[nodiscard]] int client_index(std::string_view interface, const ormel::TunnelFacts& facts);

// The row of ormel::TUNNELS whose server or client an interface belongs to; npos for any other
// interface. `users` tells which server a PPP session belongs to.
[[nodiscard]] std::size_t kind_of(std::string_view interface, const std::vector<OnlineUser>& users);

}  // namespace fenro::rated
