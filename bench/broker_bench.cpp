#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxproxy.h>
#include <boost/make_shared.hpp>

#include "allocations.h"

namespace {

/// A bench_broker with so many modules in a process of its own, and a child broker of it here.
class Network {
 public:
  explicit Network(long modules)
      : master_(::popen(("exec " BENCH_BROKER " " + std::to_string(modules)).c_str(), "r")) {
    int port = 0;
    if (!master_ || std::fscanf(master_, "%d", &port) != 1)
      throw std::runtime_error("no master with modules");
    child_ = JX::JXBroker::createBroker("child", "127.0.0.1", 0, "127.0.0.1", port);
  }
  ~Network() {
    child_->getProxy("Ender", 0)->asObject().post("end");
    ::pclose(master_);
    child_->shutdown();
  }
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;

  const boost::shared_ptr<JX::JXBroker>& child() const { return child_; }

 private:
  std::FILE* master_;
  boost::shared_ptr<JX::JXBroker> child_;
};

void lookUp(benchmark::State& state, long modules) {
  const Network network(modules);
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
  const Network network(modules);
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
