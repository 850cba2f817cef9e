#include "allocations.h"

namespace bench {

CountAllocations::CountAllocations(benchmark::State& state)
    : state_(state), before_(AllocationCount::now()) {}

CountAllocations::~CountAllocations() {
  // Counters of threads are added up, and the count is everyone's already.
  if (state_.thread_index() != 0) return;
  const AllocationCount now = AllocationCount::now();
  const long allocated = now.made - before_.made;
  const long kept = allocated - (now.freed - before_.freed);
  const auto perIteration = [](long count) {
    return benchmark::Counter(static_cast<double>(count), benchmark::Counter::kAvgIterations);
  };
  state_.counters["allocs"] = perIteration(allocated);
  state_.counters["kept"] = perIteration(kept);
}

}  // namespace bench
