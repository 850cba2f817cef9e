#include "allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> allocations{0};
std::atomic<long> frees{0};

void release(void* memory) noexcept {
  if (memory) frees.fetch_add(1, std::memory_order_relaxed);
  std::free(memory);
}

}  // namespace

// The array and nothrow forms of the standard library end in this one.
void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
  release(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  release(memory);
}

namespace bench {

CountAllocations::CountAllocations(benchmark::State& state)
    : state_(state),
      allocatedBefore_(allocations.load(std::memory_order_relaxed)),
      freedBefore_(frees.load(std::memory_order_relaxed)) {}

CountAllocations::~CountAllocations() {
  // Counters of threads are added up, and the count is everyone's already.
  if (state_.thread_index() != 0) return;
  const long allocated = allocations.load(std::memory_order_relaxed) - allocatedBefore_;
  const long kept = allocated - (frees.load(std::memory_order_relaxed) - freedBefore_);
  const auto perIteration = [](long count) {
    return benchmark::Counter(static_cast<double>(count), benchmark::Counter::kAvgIterations);
  };
  state_.counters["allocs"] = perIteration(allocated);
  state_.counters["kept"] = perIteration(kept);
}

}  // namespace bench
