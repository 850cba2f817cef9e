#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>

namespace gv::detail {

/// For how long nobody polls after others have kept the processor: longer each time while that goes
/// on. Any thread.
class PollingRest {
 public:
  using Clock = std::chrono::steady_clock;

  /// Does not look at the clock where there is none.
  bool isOn() noexcept {
    return until_.load(std::memory_order_relaxed) != never && isOn(Clock::now());
  }
  bool isOn(Clock::time_point now) noexcept {
    auto until = until_.load(std::memory_order_relaxed);
    if (now < until) return true;
    until_.compare_exchange_strong(until, never, std::memory_order_relaxed);
    return false;
  }

  /// A thread gave way at one time and was back at the other.
  void gaveWay(Clock::time_point at, Clock::time_point back) noexcept {
    const auto end = end_.load(std::memory_order_relaxed);
    // What began before the last rest was over is what that was for.
    if (back - at < crowded || (end != never && at < end)) return;
    const auto last = length_.load(std::memory_order_relaxed);
    const bool goesOn = end != never && at - end < last;
    const auto next = goesOn ? std::min<Clock::duration>(2 * last, longest) : shortest;
    length_.store(next, std::memory_order_relaxed);
    end_.store(back + next, std::memory_order_relaxed);
    until_.store(back + next, std::memory_order_relaxed);
  }

 private:
  // A slice, or much of one.
  static constexpr std::chrono::microseconds crowded{500};
  static constexpr std::chrono::milliseconds shortest{2};
  static constexpr std::chrono::milliseconds longest{250};
  static constexpr Clock::time_point never = Clock::time_point::min();

  std::atomic<Clock::time_point> until_{never};
  std::atomic<Clock::time_point> end_{never};  // of the last one
  std::atomic<Clock::duration> length_{shortest};
};

}  // namespace gv::detail
