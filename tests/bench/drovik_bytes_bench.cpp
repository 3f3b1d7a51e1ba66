// The traffic of 1,000 clients of the Drovik server: one question of the program, answered by a
// service that builds its reply as the server does. The reply alone is measured beside it.
#include <csignal>
#include <cstdio>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

#include "daemons/drovik/server.h"
#include "ormel/drivers/drovik/drovik.h"

namespace {

constexpr size_t CLIENTS = 1000;

std::vector<fenro::drovik::ClientBytes> clients() {
  std::vector<fenro::drovik::ClientBytes> all;
  char identifier[18];
  for (size_t i = 0; i < CLIENTS; ++i) {
    std::snprintf(identifier, sizeof identifier, "02:00:5e:10:%02zx:%02zx", i / 256, i % 256);
    all.push_back({identifier, (uint64_t{1} << 40) + i, (uint64_t{1} << 41) + i});
  }
  return all;
}

// In its own process, as the daemon is.
class Service {
 public:
  Service() : child_(fork()) {
    if (child_ == 0) serve();
    while (ormel::drovik::get_drovik_client_bytes_info().size() != CLIENTS) usleep(10'000);
  }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }

 private:
  [[noreturn]] static void serve() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    fenro::bus::Server server{"MorviServer"};
    const auto all = clients();
    server.on("bytes_info", [&](std::string_view) {
      return fenro::bus::Reply{MIB_SUCCESS, fenro::drovik::bytes_reply(all)};
    });
    _exit(server.run());
  }
  pid_t child_;
};

void reply_of_1000(benchmark::State& state) {
  const auto all = clients();
  for (auto _ : state) benchmark::DoNotOptimize(fenro::drovik::bytes_reply(all));
}

void bytes_info_of_1000(benchmark::State& state) {
  const Service service;
  for (auto _ : state) benchmark::DoNotOptimize(ormel::drovik::get_drovik_client_bytes_info());
}

BENCHMARK(reply_of_1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(bytes_info_of_1000)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
