#include "daemons/rated/trails.h"

#include <utility>

#include "common/json.h"

namespace fenro::rated {

namespace {

// The protocol and the index of the client tunnel of an interface; index 0 for any other one.
std::pair<int, int> tunnel_of(const std::string& interface) {
  for (const ormel::TunnelFacts& facts : ormel::TUNNELS) {
    if (const int index = client_index(interface, facts); index != 0) return {facts.client, index};
  }
  return {};
}

}  // namespace

void Trails::Trail::add(const Counters& now, std::time_t elapsed) {
  if (elapsed > 0 && last.key == now.key && last.generation == now.generation) {
    const std::uint64_t bytes =
        grown(last.rx_bytes, now.rx_bytes) + grown(last.tx_bytes, now.tx_bytes);
    rates.push_back(bytes / static_cast<std::uint64_t>(elapsed));
    if (rates.size() > KEPT) rates.pop_front();
  }
  last = now;
}

void Trails::sample(const std::vector<Counters>& interfaces, std::time_t now) {
  std::map<std::string, Trail, std::less<>> found;
  for (const Counters& each : interfaces) {
    const auto [type, index] = tunnel_of(each.key);
    if (index == 0) continue;
    const auto known = trails_.find(each.key);
    Trail trail = known == trails_.end() ? Trail{type, index} : std::move(known->second);
    trail.add(each, now - sampled_);
    found.emplace(each.key, std::move(trail));
  }
  trails_ = std::move(found);
  sampled_ = now;
}

std::string Trails::reply() const {
  Json tunnels{json_array()};
  for (const auto& [interface, trail] : trails_) {
    Json rates{json_array()};
    for (const std::uint64_t rate : trail.rates)
      json_array_append_new(rates.get(), json_integer(static_cast<json_int_t>(rate)));
    json_array_append_new(tunnels.get(), json_pack("{s:i, s:i, s:o}", "type", trail.type, "index",
                                                   trail.index, "rates", rates.release()));
  }
  Json data{
      json_pack("{s:I, s:o}", "step", json_int_t{History::STEP}, "tunnels", tunnels.release())};
  return reply_text(0, std::move(data));
}

}  // namespace fenro::rated
