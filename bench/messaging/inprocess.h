#pragma once

#include <chrono>
#include <cstdlib>

#include "messaging/report.h"

namespace bench {

/// Reports what one call of `addOne`, which returns its argument plus one, takes in this thread.
template <class AddOne>
void reportCall(const char* kind, const char* metric, const AddOne& addOne) {
  using Clock = std::chrono::steady_clock;
  using Seconds = std::chrono::duration<double>;
  constexpr int batch = 1000;
  const Seconds time(0.3 * scale());
  int sum = 0;
  long calls = 0;
  Seconds took{};
  for (const auto start = Clock::now(); took < time; took = Clock::now() - start, calls += batch)
    for (int i = 0; i < batch; ++i) sum = addOne(sum % batch);
  if (sum == 0) std::abort();
  report(kind, "E", metric, took.count() * 1e9 / static_cast<double>(calls), "ns");
}

/// Reports what tasks of the event loop take: posted and waited for by one thread, with the pool
/// awake and asleep, and posted by one thread and by four.
void reportTasks(const char* kind);

}  // namespace bench
