// Keeps the appliance's own traffic on the tunnel that the policy names.
#pragma once

#include <ctime>
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
  // Whether traffic is held back for want of a tunnel.
  [[nodiscard]] bool held() const { return applied_.held; }
  // How often the gateway has changed since this daemon started.
  [[nodiscard]] long switches() const { return switches_; }
  // When that began, or when the interface took over.
  [[nodiscard]] std::time_t since() const { return since_time_; }

 private:
  struct Route {
    bool held = false;  // no tunnel is there, and nothing leaves by another way
    bool waiting =
        false;  // nothing comes through the tunnel: its server's name may have to be looked up
    std::string interface {};
    int index =
        0;  // routes go away with their interface, and one of the same name may take its place
    bool snat = false;
    std::time_t up_since = 0;  // the tunnel may have come up again, with another name server
    std::vector<AddressMark> networks{};  // those of the host change the rules
    bool operator==(const Route&) const = default;
  };
  [[nodiscard]] Route wanted(const std::vector<Link>& links, const std::vector<Address>& addresses);
  [[nodiscard]] Route without_tunnel(const std::vector<Link>& links,
                                     TunnelWatch::Clock::time_point now);
  [[nodiscard]] bool filter_is_gone(TunnelWatch::Clock::time_point now);
  void tell(const Route& next, TunnelWatch::Clock::time_point now);

  GatewayPolicy policy_;
  GatewayChoice choice_;
  TunnelWatch watch_;
  Route applied_;
  TunnelWatch::Clock::time_point since_ = TunnelWatch::Clock::now();  // of applied_
  long switches_ = 0;
  std::time_t since_time_ = std::time(nullptr);
  TunnelWatch::Clock::time_point next_check_{};               // of the filter
  std::optional<TunnelWatch::Clock::time_point> gone_since_;  // no tunnel of the policy is there
  bool stale_ = true;  // what an earlier run of this daemon has left may stand
  std::optional<TunnelWatch::Clock::time_point> retry_;  // of what the script could not do
};

}  // namespace fenro::networkd
