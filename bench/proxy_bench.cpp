#include <benchmark/benchmark.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <jxcommon/jxproxy.h>
#include <boost/make_shared.hpp>

#include "allocations.h"
#include "benchmodule.h"
#include "messaging/peer.h"
#include "network.h"

namespace {

/// A process that answers over plain sockets, and a connection to it.
class PlainSockets {
 public:
  PlainSockets() : server_(::popen("exec " MESSAGING_BENCH " raw server 0", "r")) {
    int port = 0;
    if (!server_ || std::fscanf(server_, "READY %d %d", &port, &pid_) != 2)
      throw std::runtime_error("no server of plain sockets");
    peer_ = bench::rawKind.connect(static_cast<std::uint16_t>(port));
  }
  ~PlainSockets() {
    peer_.reset();
    ::kill(pid_, SIGTERM);
    ::pclose(server_);
  }
  PlainSockets(const PlainSockets&) = delete;
  PlainSockets& operator=(const PlainSockets&) = delete;

  int add(int a, int b) { return peer_->add(a, b); }

 private:
  std::FILE* server_;
  pid_t pid_ = 0;
  std::unique_ptr<bench::Peer> peer_;
};

void overPlainSockets(benchmark::State& state) {
  PlainSockets sockets;
  state.SetLabel("reference");
  const bench::CountAllocations count(state);
  for (auto _ : state) benchmark::DoNotOptimize(sockets.add(1, 2));
}
BENCHMARK(overPlainSockets)->Name("call of another process/plain sockets")->UseRealTime();

// Each of these makes one call.

int typed(JX::JXProxy& proxy) {
  return proxy.call<int>("add", 1, 2);
}

int untyped(JX::JXProxy& proxy) {
  static const JX::JXValue arguments = std::vector<JX::JXValue>{1, 2};
  return proxy.genericCall("add", arguments).toInt();
}

int post(JX::JXProxy& proxy) {
  return proxy.pCall("add", 1, 2);
}

int postAndWait(JX::JXProxy& proxy) {
  return proxy.wait(proxy.pCall("add", 1, 2), 0);
}

using Call = int (*)(JX::JXProxy&);

void run(benchmark::State& state, JX::JXProxy& proxy, Call call) {
  call(proxy);
  const bench::CountAllocations count(state);
  for (auto _ : state) benchmark::DoNotOptimize(call(proxy));
}

/// Until each notification is handed over. The module gets the time to handle them, which is not
/// counted: of too many some would be dropped.
void runNotified(benchmark::State& state, JX::JXProxy& proxy) {
  std::pair<int, int> cache;
  int count = 0;
  const bench::CountAllocations counted(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(proxy.pCallNotify("on", "text", 1, {}, &cache));
    if (++count % 1000 != 0) continue;
    state.PauseTiming();
    while (proxy.call<int>("heard") < count) std::this_thread::yield();
    state.ResumeTiming();
  }
}

void callHere(benchmark::State& state, Call call) {
  const auto module = boost::make_shared<bench::BenchModule>(nullptr, "Bench");
  JX::JXProxy proxy(module->asObject(), "Bench");
  run(state, proxy, call);
}
BENCHMARK_CAPTURE(callHere, typed, typed)->Name("call of a module of this process/typed");
BENCHMARK_CAPTURE(callHere, untyped, untyped)->Name("call of a module of this process/untyped");
BENCHMARK_CAPTURE(callHere, posted, post)
    ->Name("call of a module of this process/posted")
    ->UseRealTime();
BENCHMARK_CAPTURE(callHere, waited, postAndWait)
    ->Name("call of a module of this process/posted, and waited for")
    ->UseRealTime();

void notifyHere(benchmark::State& state) {
  const auto module = boost::make_shared<bench::BenchModule>(nullptr, "Bench");
  JX::JXProxy proxy(module->asObject(), "Bench");
  runNotified(state, proxy);
}
BENCHMARK(notifyHere)->Name("call of a module of this process/notified")->UseRealTime();

void callQueued(benchmark::State& state) {
  const auto module = boost::make_shared<bench::BenchModule>(nullptr, "Bench");
  const auto object = module->asObject();
  const std::string name = "add";
  const int a = 1, b = 2;
  const bench::CountAllocations count(state);
  for (auto _ : state)
    benchmark::DoNotOptimize(
        object.metaCall(name, gv::makeParameters(a, b), gv::MetaCallType::Queued)
            .value()
            .to<int>());
}
BENCHMARK(callQueued)->Name("call of a module of this process/queued")->UseRealTime();

void callThere(benchmark::State& state, Call call) {
  const bench::Network network(0);
  JX::JXProxy proxy(network.child(), "Bench");
  run(state, proxy, call);
}
BENCHMARK_CAPTURE(callThere, typed, typed)->Name("call of another process/typed")->UseRealTime();
BENCHMARK_CAPTURE(callThere, untyped, untyped)
    ->Name("call of another process/untyped")
    ->UseRealTime();
BENCHMARK_CAPTURE(callThere, posted, post)->Name("call of another process/posted")->UseRealTime();
BENCHMARK_CAPTURE(callThere, waited, postAndWait)
    ->Name("call of another process/posted, and waited for")
    ->UseRealTime();

void notifyThere(benchmark::State& state) {
  const bench::Network network(0);
  JX::JXProxy proxy(network.child(), "Bench");
  runNotified(state, proxy);
}
BENCHMARK(notifyThere)->Name("call of another process/notified")->UseRealTime();

}  // namespace
