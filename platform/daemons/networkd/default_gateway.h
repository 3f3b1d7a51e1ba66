// Keeps the appliance's own traffic on the tunnel that the policy names.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "daemons/networkd/gateway_choice.h"
#include "daemons/networkd/tunnel_watch.h"

namespace fenro::networkd {

class DefaultGateway {
 public:
  // Reads the policy again and acts on it.
  void reload();
  // A profile has come, gone or changed: its server may be reached by another address now.
  void profiles_changed() { stale_ = true; }
  // To be called about once a second.
  void look(const std::vector<Link>& links, const std::vector<Address>& addresses);

  // The interface that carries the traffic now; empty if no tunnel does.
  [[nodiscard]] const std::string& interface() const { return applied_.interface; }

 private:
  struct Route {
    std::string interface {};
    int index = 0;  // routes go away with their interface, and one of the same name may take its place
    bool snat = false;
    bool operator==(const Route&) const = default;
  };
  [[nodiscard]] Route wanted(const std::vector<Link>& links, const std::vector<Address>& addresses);

  GatewayPolicy policy_;
  GatewayChoice choice_;
  TunnelWatch watch_;
  Route applied_;
  bool stale_ = true;                                    // what an earlier run of this daemon has left may stand
  std::optional<TunnelWatch::Clock::time_point> retry_;  // of what the script could not do
};

}  // namespace fenro::networkd
