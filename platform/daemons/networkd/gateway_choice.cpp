#include "daemons/networkd/gateway_choice.h"

namespace fenro::networkd {

bool GatewayChoice::may_return(const GatewayPolicy& policy, Clock::time_point now) {
  if (!well_since_) well_since_ = now;
  return policy.reversion && now - *well_since_ >= *policy.reversion;
}

Chosen GatewayChoice::choose(const GatewayPolicy& policy, Health first, Health second,
                             Clock::time_point now) {
  if (policy.first.empty()) first = Health::ABSENT;
  if (policy.second.empty()) second = Health::ABSENT;
  if (first != Health::WELL) well_since_.reset();

  if (second == Health::WELL && first != Health::WELL) {
    chosen_ = Chosen::SECOND;
  } else if (first == Health::WELL && second == Health::WELL) {
    if (chosen_ != Chosen::SECOND || may_return(policy, now)) chosen_ = Chosen::FIRST;
  } else if (first != Health::ABSENT) {
    if (chosen_ != Chosen::SECOND || first == Health::WELL || second == Health::ABSENT)
      chosen_ = Chosen::FIRST;
  } else {
    chosen_ = second == Health::ABSENT ? Chosen::NONE : Chosen::SECOND;
  }
  return chosen_;
}

}  // namespace fenro::networkd
