#include "messaging/inprocess.h"

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gv/eventloop.h>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

template <class Before>
double medianOfWaits(int count, const Before& before) {
  std::vector<double> took;
  for (int i = 0; i < count; ++i) {
    before();
    const auto start = Clock::now();
    if (gv::getEventLoop()->async([i] { return i + 1; }).value() != i + 1) std::abort();
    took.push_back(Microseconds(Clock::now() - start).count());
  }
  std::nth_element(took.begin(), took.begin() + count / 2, took.end());
  return took[static_cast<std::size_t>(count / 2)];
}

/// Tasks a second, of which no more than some thousands wait at any moment.
double rateOfTasks(int threads) {
  constexpr long most = 10'000;
  std::atomic<long> posted{0}, done{0};
  std::atomic<bool> isOver{false};
  std::vector<std::jthread> posters;
  const auto start = Clock::now();
  for (int i = 0; i < threads; ++i)
    posters.emplace_back([&] {
      while (!isOver.load(std::memory_order_relaxed)) {
        if (posted - done > most) {
          std::this_thread::yield();
          continue;
        }
        ++posted;
        gv::getEventLoop()->post([&done] { ++done; });
      }
    });
  std::this_thread::sleep_for(std::chrono::duration<double>(0.7 * scale()));
  isOver = true;
  posters.clear();
  while (done < posted) std::this_thread::yield();
  return static_cast<double>(done) / std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

void reportTasks(const char* kind) {
  const auto count = [](int usual) { return std::max(10, static_cast<int>(usual * scale())); };
  const auto fallAsleep = [] { std::this_thread::sleep_for(std::chrono::milliseconds(2)); };
  report(kind, "E", "post_wait_p50", medianOfWaits(count(20'000), [] {}), "us");
  report(kind, "E", "post_wait_asleep_p50", medianOfWaits(count(200), fallAsleep), "us");
  for (const int threads : {1, 4})
    report(kind, "E", ("post_threads" + std::to_string(threads)).c_str(), rateOfTasks(threads),
           "tasks/s");
}

}  // namespace bench
