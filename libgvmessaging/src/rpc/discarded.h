#pragma once

#include <atomic>
#include <cstdint>

namespace gv::rpc {

/// What came from one peer and was not acted upon, by number. Counted by any thread; nothing is
/// ordered by it.
struct Discarded {
  class Counter {
   public:
    void operator++() { count_.fetch_add(1, std::memory_order_relaxed); }
    operator std::uint64_t() const { return count_.load(std::memory_order_relaxed); }

   private:
    std::atomic<std::uint64_t> count_{0};
  };

  Counter events;   ///< Unreadable, or to no subscription.
  Counter replies;  ///< To no call that waits.
  Counter posts;    ///< That could not be run, or failed.
  Counter calls;    ///< Refused for a limit, of calls under way or of threads.
};

}  // namespace gv::rpc
