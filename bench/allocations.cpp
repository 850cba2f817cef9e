#include "allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> allocations{0};

}  // namespace

// The array and nothrow forms of the standard library end in this one.
void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace bench {

CountAllocations::CountAllocations(benchmark::State& state)
    : state_(state), atStart_(allocations.load(std::memory_order_relaxed)) {}

CountAllocations::~CountAllocations() {
  // Counters of threads are added up, and the count is everyone's already.
  if (state_.thread_index() != 0) return;
  const long counted = allocations.load(std::memory_order_relaxed) - atStart_;
  state_.counters["allocs"] =
      benchmark::Counter(static_cast<double>(counted), benchmark::Counter::kAvgIterations);
}

}  // namespace bench
