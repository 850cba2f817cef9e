#include <benchmark/benchmark.h>

#include <string>

#include <gv/log.h>

#include "allocations.h"

namespace {

using gv::log::Level;

void disabledLine(benchmark::State& state) {
  bench::CountAllocations count(state);
  for (auto _ : state) GV_LOG(Level::Debug, "bench.log", "disabledLine", "never made");
}
BENCHMARK(disabledLine)->Name("disabled log line/GV_LOG");

void disabledByCategory(benchmark::State& state) {
  const gv::log::Category& category = gv::log::category("bench.log");
  bench::CountAllocations count(state);
  for (auto _ : state) benchmark::DoNotOptimize(category.isEnabled(Level::Debug));
}
BENCHMARK(disabledByCategory)->Name("disabled log line/isEnabled of a category");

void disabledByName(benchmark::State& state) {
  const std::string name = "bench.log";
  gv::log::addCategory(name);
  bench::CountAllocations count(state);
  for (auto _ : state) benchmark::DoNotOptimize(gv::log::isEnabled(name, Level::Debug));
}
BENCHMARK(disabledByName)->Name("disabled log line/isEnabled of a name");

void enabledLine(benchmark::State& state) {
  gv::log::removeHandler(gv::log::DefaultHandler);
  const auto handler = gv::log::addHandler("null", [](const gv::log::Record&) {});
  {
    bench::CountAllocations count(state);
    for (auto _ : state) {
      GV_LOG(Level::Info, "bench.log", "enabledLine", "a text that is too long to stand in place");
    }
  }
  gv::log::removeHandler(handler);
}
BENCHMARK(enabledLine)->Name("enabled log line/a handler that does nothing");

}  // namespace
