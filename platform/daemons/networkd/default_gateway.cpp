#include "daemons/networkd/default_gateway.h"

#include <algorithm>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

#include <fenro/event_log.h>
#include <fenro/mibservice.h>

#include "base/argv.h"
#include "common/keeper_report.h"
#include "daemons/networkd/guard.h"
#include "daemons/networkd/interfaces.h"

namespace fenro::networkd {
namespace {

constexpr const char* POLICY_FILE = "/etc/config/vpn_options.conf";
constexpr const char* SCRIPT = "/etc/init.d/vpn_gateway.sh";
constexpr std::chrono::minutes SHORTEST_HOLD{
    1};  // gives a server time to restart before traffic leaves in clear
constexpr std::chrono::seconds RETRY_PAUSE{10};  // where it fails for good, it says so each time
constexpr std::chrono::seconds FILTER_PERIOD{
    10};  // between two looks whether the guard's filter is still there
constexpr const char* MARK =
    "/run/fenro/gateway";  // the script's, there while it has something set up
constexpr const char* TAKEN_NAMES =
    "/var/lib/fenro/dns/state";  // and this while the name servers are a tunnel's
constexpr const char* UP_MARKS =
    "/run/fenro/tunnels/";  // a file for each profile whose tunnel is up
constexpr std::string_view CLIENTS[] = {"ppp1", "tun2", "dtunc",
                                        "wgc"};  // how interfaces of client tunnels begin

// Whether all of it could be done. What could not, the script tells the journal.
bool run_script(std::vector<std::string> words) {
  words.insert(words.begin(), SCRIPT);
  return mib_io_execv(nullptr, nullptr, nullptr, argv_of(words).data()) == 0;
}

// When the tunnel's hook had written all that its server says; 0 before.
std::time_t up_since(const std::string& interface) {
  struct stat status {};
  return stat((UP_MARKS + tunnel_key(interface)).c_str(), &status) == 0 ? status.st_mtim.tv_sec : 0;
}

// The host's addresses but for those of client tunnels.
std::vector<AddressMark> own_networks(const std::vector<Link>& links) {
  std::vector<AddressMark> marks;
  if (!list_address_marks(marks)) return {};
  std::erase_if(marks, [&](const AddressMark& mark) {
    const Link* const link = find_link(links, mark.index);
    return !link || std::ranges::any_of(CLIENTS, [link](std::string_view prefix) {
      return link->name.starts_with(prefix);
    });
  });
  return marks;
}

constexpr const char* GATEWAY_EVENT = "gateway";  // kinds of the keeper's notifications
constexpr const char* GUARD_EVENT = "guard";

void log_event(const char* kind, int type, const char* text) {
  naslog_event event{};
  event.type = type;
  std::snprintf(event.event_desc, sizeof event.event_desc, "[ORMEL Service] %s", text);
  if (naslog_event_add(&event) != 0)
    std::fprintf(stderr, "fenro-networkd: no event: %s\n", event.event_desc);
  report_to_keeper(kind, type, kind, text);
}

}  // namespace

void DefaultGateway::reload() {
  policy_ = read_gateway_policy(POLICY_FILE);
  choice_ = {};
  gone_since_.reset();
  stale_ = true;
  std::vector<Link> links;
  std::vector<Address> addresses;
  if (list_links(links) && list_addresses(addresses)) look(links, addresses);
}

DefaultGateway::Route DefaultGateway::wanted(const std::vector<Link>& links,
                                             const std::vector<Address>& addresses) {
  const auto now = TunnelWatch::Clock::now();
  const auto health = [&](const std::string& interface) {
    return interface.empty() ? Health::ABSENT : watch_.look(interface, links, addresses, now);
  };
  const Health first = health(policy_.first);
  const Health second = health(policy_.second);
  const Chosen chosen = choice_.choose(policy_, first, second, now);
  if (chosen == Chosen::NONE) return without_tunnel(links, now);
  const std::string& interface = chosen == Chosen::FIRST ? policy_.first : policy_.second;
  const bool waiting = (chosen == Chosen::FIRST ? first : second) == Health::SILENT;
  const Link* const link = find_link(links, interface);
  if (!link) return without_tunnel(links, now);
  gone_since_.reset();
  return {false,
          waiting,
          interface,
          link->index,
          policy_.snat,
          up_since(interface),
          own_networks(links)};
}

// A policy that names a gateway holds traffic back for a while before it lets it out without one.
DefaultGateway::Route DefaultGateway::without_tunnel(const std::vector<Link>& links,
                                                     TunnelWatch::Clock::time_point now) {
  const Guard guard = current_guard();
  Route route;
  if (policy_.first.empty()) {
    route.held = guard == Guard::STRICT || (guard == Guard::ON && policy_.damaged);
  } else {
    if (!gone_since_) gone_since_ = now;
    const std::chrono::minutes hold =
        std::max(policy_.reversion.value_or(SHORTEST_HOLD), SHORTEST_HOLD);
    route.held = guard != Guard::OFF || now - *gone_since_ < hold;
  }
  if (route.held) route.networks = own_networks(links);
  return route;
}

void DefaultGateway::tell(const Route& next, TunnelWatch::Clock::time_point now) {
  const auto name = [](const Route& route) {
    if (route.held) return std::string("nothing, traffic is held back");
    return route.interface.empty() ? std::string("the host's own route") : route.interface;
  };
  const auto lasted = std::chrono::duration_cast<std::chrono::seconds>(now - since_).count();
  const char* reason = "it is up";
  if (policy_.first.empty()) {
    reason = "the policy is off";
  } else if (next.held) {
    reason = "no tunnel of the policy is up";
  } else if (next.interface.empty()) {
    reason = "no tunnel of the policy has come back in time";
  } else if (next.interface == policy_.second) {
    reason = "the first tunnel is down or silent";
  }
  char text[256];
  std::snprintf(text, sizeof text, "Default gateway: from %s (for %lld s) to %s: %s.",
                name(applied_).c_str(), static_cast<long long>(lasted), name(next).c_str(), reason);
  log_event(next.held && current_guard() != Guard::OFF ? GUARD_EVENT : GATEWAY_EVENT,
            policy_.first.empty() || !next.interface.empty() ? 0 : 1, text);
  ++switches_;
  since_ = now;
  since_time_ = std::time(nullptr);
}

// Another program that loads its own firewall may empty the kernel's tables.
bool DefaultGateway::filter_is_gone(TunnelWatch::Clock::time_point now) {
  if (now < next_check_ || (!applied_.held && applied_.interface.empty()) ||
      current_guard() == Guard::OFF)
    return false;
  next_check_ = now + FILTER_PERIOD;
  if (guard_filter_is_set()) return false;
  log_event(GUARD_EVENT, 1,
            "The guard's filter had been removed by another program and is set again.");
  return true;
}

void DefaultGateway::look(const std::vector<Link>& links, const std::vector<Address>& addresses) {
  Route route = wanted(links, addresses);
  const auto now = TunnelWatch::Clock::now();
  if (route == applied_ && !stale_ && (!retry_ || now < *retry_) && !filter_is_gone(now)) return;
  bool done = true;
  if (!route.interface.empty()) {
    done = run_script({route.waiting ? "wait" : "start", route.interface, route.snat ? "1" : "0"});
  } else if (route.held) {
    done = run_script({"hold"});
  } else if (!applied_.interface.empty() || access(MARK, F_OK) == 0 ||
             access(TAKEN_NAMES, F_OK) == 0) {
    done = run_script({"stop"});
  }
  if (route.interface != applied_.interface || route.held != applied_.held) tell(route, now);
  applied_ = std::move(route);
  stale_ = false;
  next_check_ = now + FILTER_PERIOD;
  retry_.reset();
  if (!done) retry_ = now + RETRY_PAUSE;
}

}  // namespace fenro::networkd
