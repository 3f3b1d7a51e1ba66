// fenro-rated: the service "RateServer" on the bus.

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>

#include "common/json.h"
#include "daemons/rated/history.h"
#include "daemons/rated/openvpn_status.h"
#include "daemons/rated/rate_server.h"
#include "daemons/rated/trails.h"
#include "libmibservice/mibserver.h"

namespace {

constexpr const char* SERVICE = "RateServer";
constexpr const char* METHOD = "all_server_stat";
constexpr const char* HISTORY = "history";
constexpr const char* TRAILS = "tunnels";
constexpr std::chrono::milliseconds PERIOD{1000};
constexpr std::chrono::seconds HISTORY_PERIOD{fenro::rated::History::STEP};

// The time that a request asks for, {"span":SECONDS}; an hour without one.
std::time_t span_of(std::string_view body) {
  const fenro::Json request{json_loadb(body.data(), body.size(), 0, nullptr)};
  const json_t* const span = json_object_get(request.get(), "span");
  return json_is_integer(span) ? static_cast<std::time_t>(json_integer_value(span))
                               : fenro::rated::History::HOUR;
}

}  // namespace

int main() {
  using namespace fenro;
  using rated::RateServer;
  const OnlineUsers users;
  RateServer rates{{[&] { return users.list(); }, rated::interface_counters,
                    [] { return rated::openvpn_clients(); }, rated::drovik_clients}};

  bus::Server server{SERVICE};
  server.on(METHOD, [&](std::string_view) {
    return bus::Reply{MIB_SUCCESS, rates.all_server_stat(RateServer::Clock::now())};
  });
  rated::History history{[&] { return users.list(); }};
  rated::Trails trails;
  const auto record = [&] {
    const auto interfaces = rated::interface_counters();
    const std::time_t now = std::time(nullptr);
    history.sample(interfaces, now);
    trails.sample(interfaces, now);
  };
  record();
  server.on(HISTORY, [&](std::string_view body) {
    return bus::Reply{MIB_SUCCESS, history.reply(span_of(body), std::time(nullptr))};
  });
  server.on(TRAILS, [&](std::string_view) { return bus::Reply{MIB_SUCCESS, trails.reply()}; });
  server.every(HISTORY_PERIOD, record);
  server.every(PERIOD, [&] { rates.tick(RateServer::Clock::now()); });
  if (!server.listen()) {
    std::fprintf(stderr, "fenro-rated: service name %s is already in use\n", SERVICE);
    return 1;
  }
  return server.run();
}
