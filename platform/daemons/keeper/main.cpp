// fenro-keeperd: the service "KeeperService" on the bus. At the start of the host it clears what a
// power cut has left and brings up what is on; from then on it starts again what has ended, and
// reports what happens.
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>

#include <curl/curl.h>

#include "base/file.h"
#include "base/handle.h"
#include "common/end_signals.h"
#include "daemons/keeper/certificates.h"
#include "daemons/keeper/cleanup.h"
#include "daemons/keeper/go_back.h"
#include "daemons/keeper/grants.h"
#include "daemons/keeper/host_watch.h"
#include "daemons/keeper/methods.h"

namespace {

constexpr const char* SERVICE = "KeeperService";
constexpr std::chrono::milliseconds PERIOD{1000};
constexpr std::chrono::seconds NETWORK_PATIENCE{60};
constexpr const char* RUN = "/run/fenro";
constexpr const char* STAMP = "/run/fenro/keeper.started";  // goes with the host's memory

// Whether this is the first keeper since the host has started.
bool host_starts() {
  std::ignore = fenro::make_private_folder(RUN);
  return static_cast<bool>(fenro::Fd{open(STAMP, O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600)});
}

// Whether there is a route by another interface than the loopback.
bool network_is_up() {
  std::ifstream table{"/proc/net/route"};
  std::string line;
  std::getline(table, line);  // the head
  while (std::getline(table, line)) {
    if (!line.starts_with("lo\t")) return true;
  }
  return false;
}

}  // namespace

int main() {
  using namespace fenro;
  using Clock = std::chrono::steady_clock;
  block_end_signals();  // before the notifier's thread begins
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return 1;
  bool booting = host_starts();
  keeper::clear_stale_state();

  keeper::Notifier notifier;
  keeper::Recent recent;
  const keeper::Reporter report = [&notifier, &recent](const keeper::Report& what) {
    std::fprintf(stderr, "fenro-keeperd: %s\n", what.text.c_str());
    if (!keeper::store_event(what))
      std::fputs("fenro-keeperd: the event log cannot be written\n", stderr);
    notifier.send(what);
    recent.add(what, std::time(nullptr));
  };
  keeper::Watch watch{report};
  keeper::HostWatch host{report};
  keeper::GoBack go_back;
  keeper::Grants grants{report};
  keeper::Certificates certificates{Clock::now()};
  if (booting) go_back.boot();  // before it counts what is on
  if (booting) grants.boot();
  if (booting) watch.boot();

  bus::Server server{SERVICE};
  keeper::serve(server, watch, notifier, recent);
  const auto began = Clock::now();
  server.every(PERIOD, [&] {
    const auto now = Clock::now();
    if (booting && (network_is_up() || now - began >= NETWORK_PATIENCE)) {
      booting = false;
      watch.go();
    }
    watch.tick(now);
    host.tick(now);
    go_back.tick(now);
    grants.tick(now);
    certificates.tick(now);
  });
  if (!server.listen()) {
    std::fprintf(stderr, "fenro-keeperd: service name %s is already in use\n", SERVICE);
    return 1;
  }
  return server.run();
}
