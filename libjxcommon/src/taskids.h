#pragma once

#include <atomic>
#include <limits>

namespace JX {

/// The id behind the last one, which it becomes: 1, 2, ... and after the largest again 1. Any
/// thread.
inline int nextIdBehind(std::atomic<int>& last) {
  int before = last;
  int next;
  do {
    next = before == std::numeric_limits<int>::max() ? 1 : before + 1;
  } while (!last.compare_exchange_weak(before, next));
  return next;
}

}  // namespace JX
