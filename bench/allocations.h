#pragma once

#include <benchmark/benchmark.h>

namespace bench {

/// Counts the process's allocations while it lives, all threads together, and reports them per
/// iteration as the counter `allocs`.
class CountAllocations {
 public:
  explicit CountAllocations(benchmark::State& state);
  ~CountAllocations();
  CountAllocations(const CountAllocations&) = delete;
  CountAllocations& operator=(const CountAllocations&) = delete;

 private:
  benchmark::State& state_;
  const long atStart_;
};

}  // namespace bench
