// How the cost of a call grows with what is around it: bench/run --growth makes a table of each.
// A name is "growth/<what grows>".

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include <gvmessaging/session.h>
#include <gvtype/buffer.h>
#include <jxcommon/jxproxy.h>
#include <boost/make_shared.hpp>

#include "benchmodule.h"
#include "network.h"

namespace {

constexpr std::int64_t mebibyte = std::int64_t{1} << 20;
/// Of the largest frame some bytes are the message's own.
constexpr std::int64_t ofMessage = 1024;

void callAmongServices(benchmark::State& state) {
  const bench::Network network(state.range(0));
  JX::JXProxy proxy(network.child(), "Module" + std::to_string(state.range(0) / 2));
  for (auto _ : state) benchmark::DoNotOptimize(proxy.call<bool>("ping"));
}
BENCHMARK(callAmongServices)
    ->Name("growth/services of the process")
    ->RangeMultiplier(10)
    ->Range(1, 10'000)
    ->UseRealTime();

class ManyMethods : public JX::JXModule {
 public:
  explicit ManyMethods(long count) : JX::JXModule(nullptr, "Many") {
    for (long i = 0; i < count; ++i) {
      functionName("method" + std::to_string(i), getName(), "Adds two numbers.");
      bindMethod(JX::makeFunctor([](int a, int b) { return a + b; }));
    }
  }
};

void callAmongMethods(benchmark::State& state) {
  const auto module = boost::make_shared<ManyMethods>(state.range(0));
  JX::JXProxy proxy(module->asObject(), "Many");
  const std::string name = "method" + std::to_string(state.range(0) / 2);
  for (auto _ : state) benchmark::DoNotOptimize(proxy.call<int>(name, 1, 2));
}
BENCHMARK(callAmongMethods)
    ->Name("growth/methods of the module")
    ->RangeMultiplier(10)
    ->Range(1, 1000);

void callBesideConnections(benchmark::State& state) {
  const bench::Network network(0);
  std::vector<boost::shared_ptr<gv::Session>> others;
  for (long i = 0; i < state.range(0); ++i) {
    others.push_back(boost::make_shared<gv::Session>());
    others.back()->connect(network.url()).value();
  }
  JX::JXProxy proxy(network.child(), "Bench");
  for (auto _ : state) benchmark::DoNotOptimize(proxy.call<int>("add", 1, 2));
}
BENCHMARK(callBesideConnections)
    ->Name("growth/other connections")
    ->RangeMultiplier(10)
    ->Range(1, 1000)
    ->UseRealTime();

void echo(benchmark::State& state) {
  const bench::Network network(0);
  JX::JXProxy proxy(network.child(), "Bench");
  const auto size = static_cast<std::size_t>(state.range(0));
  const gv::Buffer sent(std::string(size, 'x').data(), size);
  const auto call = [&] {
    if (proxy.call<gv::Buffer>("echo", sent).size() != size) state.SkipWithError("a wrong echo");
  };
  // The first few get memory of that size from the system, which takes longer than the call.
  for (int first = 0; first < 8; ++first) call();
  for (auto _ : state) call();
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(echo)
    ->Name("growth/bytes of payload")
    ->RangeMultiplier(8)
    ->Range(1, 16 * mebibyte)
    ->Arg(64 * mebibyte - ofMessage)
    ->UseRealTime();

}  // namespace
