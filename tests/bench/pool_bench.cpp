// The pool in memory: what a load and a search cost by the number of profiles in the file.
#include <cstdlib>

#include <benchmark/benchmark.h>

#include "base/tunnel.h"
#include "ormel/config/pool.h"

namespace {

void load(benchmark::State& state) {
  for (auto _ : state) {
    ormel::config::Management pool;
    pool.load();
    benchmark::DoNotOptimize(pool.config_pool.data());
    state.counters["records"] = static_cast<double>(pool.config_pool.size());
  }
}

void clone_all(benchmark::State& state) {
  ormel::config::Management pool;
  pool.load();
  for (auto _ : state) {
    for (const auto& record : pool.config_pool) benchmark::DoNotOptimize(record->clone());
  }
}

BENCHMARK(load)->Unit(benchmark::kMicrosecond);
BENCHMARK(clone_all)->Unit(benchmark::kMicrosecond);

}  // namespace
