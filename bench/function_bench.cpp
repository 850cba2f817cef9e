#include <benchmark/benchmark.h>

#include <functional>
#include <memory>

#include <gvtype/anyfunction.h>

#include "allocations.h"

namespace {

int add(int a, int b) {
  return a + b;
}

struct Adder {
  virtual ~Adder() = default;
  virtual int add(int a, int b) const = 0;
};

struct PlainAdder final : Adder {
  int add(int a, int b) const override { return a + b; }
};

void callErased(benchmark::State& state) {
  const gv::AnyFunction function = gv::AnyFunction::from(&add);
  int a = 1, b = 2;
  const gv::GenericFunctionParameters arguments{gv::AnyReference::from(a),
                                                gv::AnyReference::from(b)};
  bench::CountAllocations count(state);
  for (auto _ : state) benchmark::DoNotOptimize(function.call(arguments));
}
BENCHMARK(callErased)->Name("call of a two-integer function/gv::AnyFunction");

void callVirtual(benchmark::State& state) {
  state.SetLabel("reference");
  std::unique_ptr<Adder> adder = std::make_unique<PlainAdder>();
  int a = 1, b = 2;
  bench::CountAllocations count(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(adder);  // hides what it points to
    benchmark::DoNotOptimize(a);
    benchmark::DoNotOptimize(adder->add(a, b));
  }
}
BENCHMARK(callVirtual)->Name("call of a two-integer function/virtual");

void callStandard(benchmark::State& state) {
  state.SetLabel("reference");
  std::function<int(int, int)> function = &add;
  int a = 1, b = 2;
  bench::CountAllocations count(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(function);
    benchmark::DoNotOptimize(a);
    benchmark::DoNotOptimize(function(a, b));
  }
}
BENCHMARK(callStandard)->Name("call of a two-integer function/std::function");

}  // namespace
