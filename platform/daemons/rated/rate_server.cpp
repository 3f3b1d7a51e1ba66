#include "daemons/rated/rate_server.h"

#include <algorithm>
#include <array>
#include <climits>
#include <set>

#include "base/tunnel.h"
#include "common/json.h"

namespace fenro::rated {
namespace {

using namespace std::chrono_literals;

constexpr auto FRESH =
    900ms;  // a reading of this age is recent enough; ticks can come a little early
constexpr auto WATCHED = 30s;   // readings continue this long after a request
constexpr auto OUTDATED = 10s;  // a rate based on an older reading is meaningless

using Source = std::function<std::vector<Counters>()> Sources::*;

ormel::Sessions sessions_of(const OnlineUser& user) {
  return ormel::sessions_of(static_cast<ormel::TYPE>(user.type));
}

// The source of a connection's counters.
Source source_of(const OnlineUser& user) {
  switch (sessions_of(user)) {
    case ormel::Sessions::OPENVPN: return &Sources::openvpn;
    case ormel::Sessions::DROVIK: return &Sources::drovik;
    default: return &Sources::interfaces;
  }
}
constexpr std::array<Source, 3> ALL_SOURCES{&Sources::interfaces, &Sources::openvpn,
                                            &Sources::drovik};

std::string key_of(const OnlineUser& user) {
  const bool by_port = sessions_of(user) == ormel::Sessions::OPENVPN;
  return by_port ? user.source + ':' + std::to_string(user.number) : user.interface;
}

json_t* rate_value(std::uint64_t rate) {
  return json_integer(static_cast<json_int_t>(std::min<std::uint64_t>(rate, INT_MAX)));
}
json_t* bytes_value(std::uint64_t bytes) {
  return json_integer(static_cast<json_int_t>(std::min<std::uint64_t>(bytes, INT64_MAX)));
}

Json describe(const Counters& counters, const networkd::Rate& rate) {
  Json object{json_object()};
  const auto set = [&](const char* name, json_t* value) {
    json_object_set_new(object.get(), name, value);
  };
  set("key", json_text(counters.key).release());
  set("rx_bytes", bytes_value(counters.rx_bytes));
  set("tx_bytes", bytes_value(counters.tx_bytes));
  set("rx_rate", rate_value(rate.rx));
  set("tx_rate", rate_value(rate.tx));
  return object;
}

networkd::Link as_link(const Counters& counters) {
  networkd::Link link;
  link.index = counters.generation;
  link.name = counters.key;
  link.rx_bytes = counters.rx_bytes;
  link.tx_bytes = counters.tx_bytes;
  return link;
}

}  // namespace

// Reads only the sources that live connections need.
std::vector<Counters> RateServer::read() const {
  std::vector<Counters> live;
  const std::vector<OnlineUser> users = sources_.users();
  for (const Source source : ALL_SOURCES) {
    std::set<std::string> keys;
    for (const OnlineUser& user : users) {
      if (source_of(user) == source) keys.insert(key_of(user));
    }
    if (keys.empty()) continue;
    for (Counters& counters : (sources_.*source)()) {
      if (keys.erase(counters.key) > 0)
        live.push_back(std::move(counters));  // once, even if it is listed several times
    }
  }
  return live;
}

void RateServer::refresh(Clock::time_point now) {
  if (has_read_ && now - read_at_ < FRESH) return;
  if (has_read_ && now - read_at_ > OUTDATED) rates_ = {};
  counters_ = read();
  std::vector<networkd::Link> links(counters_.size());
  std::ranges::transform(counters_, links.begin(), as_link);
  rates_.sample(links, now);
  read_at_ = now;
  has_read_ = true;
}

void RateServer::tick(Clock::time_point now) {
  if (was_asked_ && now - asked_at_ < WATCHED) refresh(now);
}

std::string RateServer::all_server_stat(Clock::time_point now) {
  asked_at_ = now;
  was_asked_ = true;
  refresh(now);
  Json data{json_array()};
  for (const Counters& counters : counters_)
    json_array_append_new(data.get(), describe(counters, rates_.of(counters.key)).release());
  return reply_text(0, std::move(data));
}

}  // namespace fenro::rated
