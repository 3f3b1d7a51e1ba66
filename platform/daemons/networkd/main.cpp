// fenro-networkd: the service "NetworkService" on the bus.

#include <chrono>
#include <cstdio>
#include <string>

#include "daemons/networkd/methods.h"
#include "libmibservice/mibserver.h"

namespace {

constexpr const char* SERVICE = "NetworkService";
constexpr const char* DEVICES_FILE = "/var/lib/fenro/external_dev.json";
constexpr std::chrono::milliseconds LOOK_PERIOD{1000};

}  // namespace

int main() {
  using namespace fenro;
  networkd::State state{networkd::ExternalDevices{DEVICES_FILE}, {}};
  state.devices.load();
  state.gateway.reload();
  networkd::look_around(state);

  bus::Server server{SERVICE};
  for (const networkd::Method& method : networkd::methods()) {
    server.on(std::string{method.name}, [&state, &method](std::string_view body) {
      return bus::Reply{MIB_SUCCESS, networkd::answer(state, method, body)};
    });
  }
  server.every(LOOK_PERIOD, [&state] { networkd::look_around(state); });
  if (!server.listen()) {
    std::fprintf(stderr, "fenro-networkd: service name %s is already in use\n", SERVICE);
    return 1;
  }
  return server.run();
}
