// fenro-rated: the service "RateServer" on the bus.

#include <chrono>
#include <cstdio>
#include <string>

#include "daemons/rated/openvpn_status.h"
#include "daemons/rated/rate_server.h"
#include "libmibservice/mibserver.h"

namespace {

constexpr const char* SERVICE = "RateServer";
constexpr const char* METHOD = "all_server_stat";
constexpr std::chrono::milliseconds PERIOD{1000};

}  // namespace

int main() {
  using namespace fenro;
  using rated::RateServer;
  const OnlineUsers users;
  RateServer rates{{[&] { return users.list(); }, rated::interface_counters, [] { return rated::openvpn_clients(); },
                    rated::drovik_clients}};

  bus::Server server{SERVICE};
  server.on(METHOD, [&](std::string_view) {
    return bus::Reply{MIB_SUCCESS, rates.all_server_stat(RateServer::Clock::now())};
  });
  server.every(PERIOD, [&] { rates.tick(RateServer::Clock::now()); });
  if (!server.listen()) {
    std::fprintf(stderr, "fenro-rated: service name %s is already in use\n", SERVICE);
    return 1;
  }
  return server.run();
}
