#pragma once

#include <benchmark/benchmark.h>

#include "allocationcount.h"

namespace bench {

/// Counts the process's allocations while it lives, all threads together, and reports per iteration
/// how many there were, `allocs`, and how many are left, `kept`.
class CountAllocations {
 public:
  explicit CountAllocations(benchmark::State& state);
  ~CountAllocations();
  CountAllocations(const CountAllocations&) = delete;
  CountAllocations& operator=(const CountAllocations&) = delete;

 private:
  benchmark::State& state_;
  const AllocationCount before_;
};

}  // namespace bench
