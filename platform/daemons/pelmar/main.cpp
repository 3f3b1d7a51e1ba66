// pelmar-agentd: the services "ormel_network_service" and "pelmar_expressd" on the bus. Each has
// its own thread, so that a slow cloud does not make one wait for the other.
#include <cstdio>
#include <thread>

#include "base/file.h"
#include "common/end_signals.h"
#include "daemons/pelmar/member_files.h"
#include "daemons/pelmar/methods.h"

namespace {

constexpr const char* NETWORK_SERVICE = "ormel_network_service";
constexpr const char* EXPRESS_SERVICE = "pelmar_expressd";
constexpr const char* LINKS_FOLDER = "/run/fenro/pelmar";
constexpr const char* LINKS_FILE = "/run/fenro/pelmar/links";

}  // namespace

int main() {
  using namespace fenro;
  block_end_signals();
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return 1;
  if (pelmar::switched_on(pelmar::EXPRESS_SWITCH) && !pelmar::reset_virtual_interface())
    std::fputs("pelmar-agentd: the virtual interface cannot be set up\n", stderr);

  bus::Server network{NETWORK_SERVICE};
  bus::Server express{EXPRESS_SERVICE};
  for (bus::Server* server : {&network, &express}) {
    if (server->listen()) continue;
    std::fprintf(stderr, "pelmar-agentd: service name %s is already in use\n",
                 server == &network ? NETWORK_SERVICE : EXPRESS_SERVICE);
    return 1;
  }
  const CloudClient account_client;
  const CloudClient device_client;
  std::ignore = make_private_folder(LINKS_FOLDER);  // without it the times only cover this run
  pelmar::LinkWatch links{LINKS_FILE};
  const pelmar::CloudReport report;
  pelmar::serve_network(network, account_client, links);
  pelmar::serve_express(express, device_client, report);

  int express_rc = 1;
  std::thread second{[&] {
    express_rc = express.run();
    network.stop();
  }};
  const int rc = network.run();
  express.stop();
  second.join();
  return rc != 0 ? rc : express_rc;
}
