#include <gv/detail/poll.h>

#include <algorithm>
#include <atomic>

#include <gv/os.h>

namespace gv::detail {
namespace {

using Clock = std::chrono::steady_clock;

// Others kept the processor for long: a slice, or much of one.
constexpr std::chrono::microseconds crowded(500);
// For how long nobody polls then: longer each time while that goes on.
constexpr std::chrono::milliseconds shortestRest(2);
constexpr std::chrono::milliseconds longestRest(250);

std::atomic<int> pollers{0};
std::atomic<Clock::duration> rest{shortestRest};
std::atomic<Clock::time_point> restsUntil{Clock::time_point::min()};

int mostPollers() noexcept {
  static const int most =
      os::getenv("GV_POLLING") == "0" ? 0 : static_cast<int>(std::thread::hardware_concurrency());
  return most;
}

bool isResting() noexcept {
  const auto until = restsUntil.load(std::memory_order_relaxed);
  return until != Clock::time_point::min() && Clock::now() < until;
}

/// Two threads that find out at once may count it once or twice.
void beginRest(Clock::time_point now) noexcept {
  const auto last = rest.load(std::memory_order_relaxed);
  const auto until = restsUntil.load(std::memory_order_relaxed);
  const bool isSoonAgain = until != Clock::time_point::min() && now - until < last;
  const auto next = isSoonAgain ? std::min<Clock::duration>(2 * last, longestRest) : shortestRest;
  rest.store(next, std::memory_order_relaxed);
  restsUntil.store(now + next, std::memory_order_relaxed);
}

}  // namespace

bool Pollers::enter() noexcept {
  if (isResting()) return false;
  if (pollers.fetch_add(1, std::memory_order_relaxed) < mostPollers()) return true;
  leave();
  return false;
}

void Pollers::leave() noexcept {
  pollers.fetch_sub(1, std::memory_order_relaxed);
}

Pollers::Time Pollers::giveWay(Time before) noexcept {
  std::this_thread::yield();
  const auto now = Clock::now();
  if (now - before > crowded) beginRest(now);
  return now;
}

}  // namespace gv::detail
