#include "allocationcount.h"

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

AllocationCount AllocationCount::now() {
  return {allocations.load(std::memory_order_relaxed), frees.load(std::memory_order_relaxed)};
}

}  // namespace bench
