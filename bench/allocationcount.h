#pragma once

namespace bench {

/// Of the whole process, by a replaced operator new.
struct AllocationCount {
  long made;
  long freed;

  static AllocationCount now();
};

}  // namespace bench
