// Which tunnel of a policy is the gateway: fail-over to the second and return to the first.
#pragma once

#include <chrono>
#include <optional>

#include "daemons/networkd/gateway_policy.h"

namespace fenro::networkd {

enum class Health {
  ABSENT,  // there is no such interface, or it is down
  SILENT,  // it is up, and nothing comes through it though it is asked
  WELL,
};

enum class Chosen { NONE, FIRST, SECOND };

class GatewayChoice {
 public:
  using Clock = std::chrono::steady_clock;

  // To be asked again about once a second. A tunnel that is silent stays the gateway as long as
  // there is no better one: what was meant for a tunnel does not leave by another way because of a
  // pause.
  [[nodiscard]] Chosen choose(const GatewayPolicy& policy, Health first, Health second,
                              Clock::time_point now);

 private:
  [[nodiscard]] bool may_return(const GatewayPolicy& policy, Clock::time_point now);

  Chosen chosen_ = Chosen::NONE;
  std::optional<Clock::time_point> well_since_;  // the first, after the second had taken over
};

}  // namespace fenro::networkd
