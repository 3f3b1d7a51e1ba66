#include "daemons/networkd/default_gateway.h"

#include <unistd.h>

#include <fenro/mibservice.h>

#include "common/argv.h"
#include "daemons/networkd/interfaces.h"

namespace fenro::networkd {
namespace {

constexpr const char* POLICY_FILE = "/etc/config/vpn_options.conf";
constexpr const char* SCRIPT = "/etc/init.d/vpn_gateway.sh";
constexpr std::chrono::seconds RETRY_PAUSE{10};     // where it fails for good, it says so each time
constexpr const char* MARK = "/run/fenro/gateway";  // the script's, there while it has something set up

// Whether all of it could be done. What could not, the script tells the journal.
bool run_script(std::vector<std::string> words) {
  words.insert(words.begin(), SCRIPT);
  return mib_io_execv(nullptr, nullptr, nullptr, argv_of(words).data()) == 0;
}

}  // namespace

void DefaultGateway::reload() {
  policy_ = read_gateway_policy(POLICY_FILE);
  choice_ = {};
  stale_ = true;
  std::vector<Link> links;
  std::vector<Address> addresses;
  if (list_links(links) && list_addresses(addresses)) look(links, addresses);
}

DefaultGateway::Route DefaultGateway::wanted(const std::vector<Link>& links, const std::vector<Address>& addresses) {
  const auto now = TunnelWatch::Clock::now();
  const auto health = [&](const std::string& interface) {
    return interface.empty() ? Health::ABSENT : watch_.look(interface, links, addresses, now);
  };
  const Health first = health(policy_.first);
  const Health second = health(policy_.second);
  const Chosen chosen = choice_.choose(policy_, first, second, now);
  if (chosen == Chosen::NONE) return {};
  const std::string& interface = chosen == Chosen::FIRST ? policy_.first : policy_.second;
  const Link* const link = find_link(links, interface);
  return link ? Route{interface, link->index, policy_.snat} : Route{};
}

void DefaultGateway::look(const std::vector<Link>& links, const std::vector<Address>& addresses) {
  Route route = wanted(links, addresses);
  const auto now = TunnelWatch::Clock::now();
  if (route == applied_ && !stale_ && (!retry_ || now < *retry_)) return;
  bool done = true;
  if (!route.interface.empty()) {
    done = run_script({"start", route.interface, route.snat ? "1" : "0"});
  } else if (!applied_.interface.empty() || access(MARK, F_OK) == 0) {
    done = run_script({"stop"});
  }
  applied_ = std::move(route);
  stale_ = false;
  retry_.reset();
  if (!done) retry_ = now + RETRY_PAUSE;
}

}  // namespace fenro::networkd
