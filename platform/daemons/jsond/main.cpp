// fenro-jsond: the service "vpncaas" on the bus.

#include <cstdio>
#include <string>

#include "daemons/jsond/methods.h"
#include "libmibservice/mibserver.h"

namespace {

constexpr const char* SERVICE = "vpncaas";
constexpr const char* FOLDER = "/etc/config";

}  // namespace

int main() {
  using namespace fenro;
  const jsond::Documents documents{FOLDER};
  bus::Server server{SERVICE};
  for (const jsond::Method& method : jsond::methods()) {
    server.on(std::string{method.name}, [&documents, &method](std::string_view body) {
      return bus::Reply{MIB_SUCCESS, jsond::answer(documents, method, body)};
    });
  }
  if (!server.listen()) {
    std::fprintf(stderr, "fenro-jsond: service name %s is already in use\n", SERVICE);
    return 1;
  }
  return server.run();
}
