#include <benchmark/benchmark.h>

#include <string>

#include <jxcommon/jxproxy.h>
#include <boost/make_shared.hpp>

#include "allocations.h"
#include "network.h"

namespace {

void lookUp(benchmark::State& state, long modules) {
  const bench::Network network(modules);
  const std::string name = "Module" + std::to_string(modules / 2);
  bench::CountAllocations count(state);
  for (auto _ : state) benchmark::DoNotOptimize(network.child()->getProxy(name, 0));
}
BENCHMARK_CAPTURE(lookUp, 10, 10)
    ->Name("look-up of a module of another process/among 10")
    ->UseRealTime();
BENCHMARK_CAPTURE(lookUp, 1000, 1000)
    ->Name("look-up of a module of another process/among 1000")
    ->UseRealTime();
BENCHMARK_CAPTURE(lookUp, 10000, 10'000)
    ->Name("look-up of a module of another process/among 10000")
    ->UseRealTime();

void list(benchmark::State& state, long modules) {
  const bench::Network network(modules);
  const auto infos = boost::make_shared<std::vector<JX::JXModuleInfo>>();
  bench::CountAllocations count(state);
  for (auto _ : state) {
    infos->clear();
    network.child()->getGlobalModuleList(infos);
  }
  if (infos->size() < static_cast<std::size_t>(modules)) state.SkipWithError("modules are missing");
}
BENCHMARK_CAPTURE(list, 10, 10)->Name("listing of another process's modules/10")->UseRealTime();
BENCHMARK_CAPTURE(list, 1000, 1000)
    ->Name("listing of another process's modules/1000")
    ->UseRealTime();
BENCHMARK_CAPTURE(list, 10000, 10'000)
    ->Name("listing of another process's modules/10000")
    ->UseRealTime();

}  // namespace
