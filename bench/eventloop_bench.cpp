#include <benchmark/benchmark.h>

#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <asio/use_future.hpp>
#include <latch>
#include <thread>

#include <gv/eventloop.h>

#include "allocations.h"

namespace {

// Tasks posted before their poster waits: enough to hide the waking up, few enough to be cached.
constexpr int batch = 1000;

asio::thread_pool& asioPool() {
  static asio::thread_pool pool(std::thread::hardware_concurrency());
  return pool;
}

template <class Post>
void postAndRun(benchmark::State& state, const Post& post) {
  bench::CountAllocations count(state);
  while (state.KeepRunningBatch(batch)) {
    std::latch done(batch);
    for (int i = 0; i < batch; ++i) post([&done] { done.count_down(); });
    done.wait();
  }
}

void postAndRunLoop(benchmark::State& state) {
  postAndRun(state, [](auto task) { gv::getEventLoop()->post(task); });
}
BENCHMARK(postAndRunLoop)->Name("post and run/gv")->UseRealTime()->Threads(1)->Threads(4);

void postAndRunAsio(benchmark::State& state) {
  state.SetLabel("reference");
  postAndRun(state, [](auto task) { asio::post(asioPool(), task); });
}
BENCHMARK(postAndRunAsio)
    ->Name("post and run/asio::thread_pool")
    ->UseRealTime()
    ->Threads(1)
    ->Threads(4);

void postAndWaitLoop(benchmark::State& state) {
  gv::getEventLoop()->async([] {}).value();
  bench::CountAllocations count(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(gv::getEventLoop()->async([] { return 1; }).value());
  }
}
BENCHMARK(postAndWaitLoop)->Name("post and wait/gv")->UseRealTime()->Threads(1)->Threads(4);

void postAndWaitAsio(benchmark::State& state) {
  state.SetLabel("reference");
  asio::post(asioPool(), asio::use_future([] {})).get();
  bench::CountAllocations count(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(asio::post(asioPool(), asio::use_future([] { return 1; })).get());
  }
}
BENCHMARK(postAndWaitAsio)
    ->Name("post and wait/asio::thread_pool")
    ->UseRealTime()
    ->Threads(1)
    ->Threads(4);

}  // namespace
