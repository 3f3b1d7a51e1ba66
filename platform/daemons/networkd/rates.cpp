#include "daemons/networkd/rates.h"

namespace fenro::networkd {
namespace {

// A counter that went back was reset; what came since is unknown.
std::uint64_t per_second(std::uint64_t before, std::uint64_t now, double seconds) {
  return now < before ? 0 : static_cast<std::uint64_t>(static_cast<double>(now - before) / seconds);
}

}  // namespace

Rate Rates::between(const Reading& before, const Link& link, Clock::time_point now) {
  const double seconds = std::chrono::duration<double>(now - before.when).count();
  if (before.index != link.index || seconds <= 0) return {};
  return {per_second(before.rx_bytes, link.rx_bytes, seconds),
          per_second(before.tx_bytes, link.tx_bytes, seconds)};
}

void Rates::sample(const std::vector<Link>& links, Clock::time_point now) {
  std::map<std::string, Reading, std::less<>> next;
  for (const Link& link : links) {
    const auto before = readings_.find(link.name);
    const Rate rate = before == readings_.end() ? Rate{} : between(before->second, link, now);
    next.insert_or_assign(link.name, Reading{link.index, link.rx_bytes, link.tx_bytes, now, rate});
  }
  readings_ = std::move(next);
}

Rate Rates::of(std::string_view interface) const {
  const auto reading = readings_.find(interface);
  return reading == readings_.end() ? Rate{} : reading->second.rate;
}

}  // namespace fenro::networkd
