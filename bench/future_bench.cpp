#include <benchmark/benchmark.h>

#include <future>

#include <gv/future.h>

#include "allocations.h"

namespace {

using gv::FutureCallbackType;

void settleAndRead(benchmark::State& state) {
  bench::CountAllocations count(state);
  for (auto _ : state) {
    gv::Promise<int> promise;
    promise.setValue(1);
    benchmark::DoNotOptimize(promise.future().value());
  }
}
BENCHMARK(settleAndRead)->Name("settle and read a future/gv");

void settleAndReadStandard(benchmark::State& state) {
  state.SetLabel("reference");
  bench::CountAllocations count(state);
  for (auto _ : state) {
    std::promise<int> promise;
    promise.set_value(1);
    benchmark::DoNotOptimize(promise.get_future().get());
  }
}
BENCHMARK(settleAndReadStandard)->Name("settle and read a future/std::promise");

void settleWithCallback(benchmark::State& state) {
  int sum = 0;
  bench::CountAllocations count(state);
  for (auto _ : state) {
    gv::Promise<int> promise;
    promise.future().connect([&sum](gv::Future<int> settled) { sum += settled.value(); },
                             FutureCallbackType::Sync);
    promise.setValue(1);
  }
  benchmark::DoNotOptimize(sum);
}
BENCHMARK(settleWithCallback)->Name("settle with a callback/gv");

void settleWithContinuation(benchmark::State& state) {
  bench::CountAllocations count(state);
  for (auto _ : state) {
    gv::Promise<int> promise;
    const auto next = promise.future().then(
        [](gv::Future<int> settled) { return settled.value() + 1; }, FutureCallbackType::Sync);
    promise.setValue(1);
    benchmark::DoNotOptimize(next.value());
  }
}
BENCHMARK(settleWithContinuation)->Name("settle and read through then/gv");

}  // namespace
