#include "daemons/rated/history.h"

#include <algorithm>
#include <iterator>

#include "base/lines.h"
#include "common/json.h"

namespace fenro::rated {
namespace {

// The number of an interface with that prefix, -1 for one that is not from `first` to `last`.
int number_of(std::string_view interface, std::string_view prefix, int first, int last) {
  if (!interface.starts_with(prefix)) return -1;
  int number = -1;
  const bool fits =
      parse_number(interface.substr(prefix.size()), number) && number >= first && number <= last;
  return fits ? number : -1;
}

// PPTP and L2TP share the names of their sessions' interfaces.
bool is_server(std::string_view interface, const ormel::TunnelFacts& facts,
               const std::vector<OnlineUser>& users) {
  if (number_of(interface, facts.server_interface, facts.first_number, facts.last_number) < 0)
    return false;
  if (facts.sessions != ormel::Sessions::PPP) return true;
  return std::ranges::any_of(users, [&](const OnlineUser& user) {
    return user.interface == interface && user.type == static_cast<std::uint32_t>(facts.server);
  });
}

void append_all(json_t* row, const auto& rates) {
  for (const std::uint64_t rate : rates)
    json_array_append_new(row, json_integer(static_cast<json_int_t>(rate)));
}

}  // namespace

int client_index(std::string_view interface, const ormel::TunnelFacts& facts) {
  const int number =
      number_of(interface, facts.interface, facts.base + 1, facts.base + ormel::MAX_TUNNEL_INDEX);
  return number < 0 ? 0 : number - facts.base;
}

std::size_t kind_of(std::string_view interface, const std::vector<OnlineUser>& users) {
  const auto* const facts =
      std::ranges::find_if(ormel::TUNNELS, [&](const ormel::TunnelFacts& each) {
        return client_index(interface, each) != 0 || is_server(interface, each, users);
      });
  return facts == std::end(ormel::TUNNELS)
             ? std::string::npos
             : static_cast<std::size_t>(facts - std::begin(ormel::TUNNELS));
}

void History::Amounts::add(const Amounts& other) {
  for (std::size_t kind = 0; kind < KINDS; ++kind) {
    received[kind] += other.received[kind];
    sent[kind] += other.sent[kind];
  }
}

// A reading that is late makes one longer step; after a clock that was set back, the step begins
// again.
void History::Ring::add(const Amounts& more, std::time_t now) {
  if (begun == 0 || now < begun) {
    begun = now;
    bytes = {};
    return;
  }
  bytes.add(more);
  const std::time_t elapsed = now - begun;
  if (elapsed < step) return;
  Row row{now, bytes};
  for (auto* const side : {&row.rates.received, &row.rates.sent})
    for (std::uint64_t& rate : *side) rate /= static_cast<std::uint64_t>(elapsed);
  rows.push_back(row);
  while (!rows.empty() && (rows.front().time <= now - kept || rows.front().time > now))
    rows.pop_front();
  begun = now;
  bytes = {};
}

// Bytes since the last reading. An interface that is new, also under an old name, counts from its
// next reading on.
History::Amounts History::since_last(const std::vector<Counters>& interfaces) {
  Amounts amounts;
  const bool sessions = std::ranges::any_of(
      interfaces, [](const Counters& each) { return each.key.starts_with("ppp"); });
  const std::vector<OnlineUser> users = sessions ? users_() : std::vector<OnlineUser>{};
  std::map<std::string, Counters, std::less<>> now;
  for (const Counters& each : interfaces) {
    const std::size_t kind = kind_of(each.key, users);
    if (kind == std::string::npos) continue;
    const auto before = last_.find(each.key);
    if (before != last_.end() && before->second.generation == each.generation) {
      amounts.received[kind] += grown(before->second.rx_bytes, each.rx_bytes);
      amounts.sent[kind] += grown(before->second.tx_bytes, each.tx_bytes);
    }
    now.emplace(each.key, each);
  }
  last_ = std::move(now);
  return amounts;
}

void History::sample(const std::vector<Counters>& interfaces, std::time_t now) {
  const Amounts amounts = since_last(interfaces);
  hour_.add(amounts, now);
  day_.add(amounts, now);
}

std::string History::reply(std::time_t span, std::time_t now) const {
  const Ring& ring = span <= HOUR ? hour_ : day_;
  Json types{json_array()};
  for (const ormel::TunnelFacts& facts : ormel::TUNNELS)
    json_array_append_new(types.get(), json_integer(facts.server));
  Json rows{json_array()};
  for (const Row& each : ring.rows) {
    if (each.time <= now - span) continue;
    Json row{json_array()};
    json_array_append_new(row.get(), json_integer(each.time));
    append_all(row.get(), each.rates.received);
    append_all(row.get(), each.rates.sent);
    json_array_append_new(rows.get(), row.release());
  }
  Json data{json_pack("{s:I, s:o, s:o}", "step", json_int_t{ring.step}, "types", types.release(),
                      "rows", rows.release())};
  return reply_text(0, std::move(data));
}

}  // namespace fenro::rated
