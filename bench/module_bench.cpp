#include <benchmark/benchmark.h>

#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>

#include "allocations.h"

namespace {

/// A module with one method, which adds.
class Adder : public JX::JXModule {
 public:
  Adder() : JX::JXModule(nullptr, "Adder") {
    functionName("add", getName(), "Adds two numbers.");
    bindMethod(JX::makeFunctor([](int a, int b) { return a + b; }));
  }
};

void callByProxy(benchmark::State& state) {
  const auto module = boost::make_shared<Adder>();
  JX::JXProxy proxy(module->asObject(), "Adder");
  bench::CountAllocations count(state);
  for (auto _ : state) benchmark::DoNotOptimize(proxy.call<int>("add", 1, 2));
}
BENCHMARK(callByProxy)->Name("call of a module's method/by name, in this thread");

void callQueued(benchmark::State& state) {
  const auto module = boost::make_shared<Adder>();
  const auto object = module->asObject();
  const std::string name = "add";
  const int a = 1, b = 2;
  bench::CountAllocations count(state);
  for (auto _ : state)
    benchmark::DoNotOptimize(
        object.metaCall(name, gv::makeParameters(a, b), gv::MetaCallType::Queued)
            .value()
            .to<int>());
}
BENCHMARK(callQueued)->Name("call of a module's method/queued")->UseRealTime();

void postAndWait(benchmark::State& state) {
  const auto module = boost::make_shared<Adder>();
  JX::JXProxy proxy(module->asObject(), "Adder");
  bench::CountAllocations count(state);
  for (auto _ : state) benchmark::DoNotOptimize(module->wait(proxy.pCall("add", 1, 2), 0));
}
BENCHMARK(postAndWait)->Name("call of a module's method/posted, and waited for")->UseRealTime();

}  // namespace
