#pragma once

#include <chrono>
#include <mutex>
#include <thread>

#include <gv/api.h>

namespace gv::detail {

/// The threads of the process that poll at the moment. More than there are cores would only take
/// the processor from those who could bring what is waited for. To poll is to give way to others;
/// where these keep the processor for long, who sleeps is back sooner, as the system prefers who is
/// woken: nobody polls for a while then.
class GV_API Pollers {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// False when it is no time to poll: the caller is not counted then.
  static bool enter() noexcept;
  static void leave() noexcept;
  /// Lets other threads run. Takes the time before it, and returns the time after it.
  static Time giveWay(Time before) noexcept;
};

inline void relaxProcessor() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

/// Looks again and again whether it is over, for that long at most, without giving way: only for a
/// few microseconds.
template <class Condition>
bool pollFor(std::chrono::nanoseconds longest, const Condition& isOver) noexcept {
  const auto end = std::chrono::steady_clock::now() + longest;
  do {
    for (int look = 0; look < 8; ++look) {
      if (isOver()) return true;
      relaxProcessor();
    }
  } while (std::chrono::steady_clock::now() < end);
  return isOver();
}

/// Locks a mutex that is mostly held for tens of nanoseconds: to sleep for it would take longer.
inline std::unique_lock<std::mutex> lockSoon(std::mutex& mutex) noexcept {
  for (int look = 0; look < 32; ++look) {
    if (mutex.try_lock()) return std::unique_lock(mutex, std::adopt_lock);
    relaxProcessor();
  }
  return std::unique_lock(mutex);
}

/// As pollFor, for a longer time: what comes from a running thread mostly comes within
/// microseconds, and to sleep and be woken costs tens of them. After the first few it gives way to
/// other threads between looks. Returns false at once when it is no time to poll.
template <class Condition>
bool pollBriefly(const Condition& isOver,
                 std::chrono::microseconds longest = std::chrono::microseconds(20)) noexcept {
  constexpr std::chrono::microseconds beforeYield(3);
  if (isOver()) return true;
  if (!Pollers::enter()) return false;
  bool over = pollFor(beforeYield, isOver);
  if (!over) {
    auto now = std::chrono::steady_clock::now();
    const auto end = now + longest;
    do {
      now = Pollers::giveWay(now);
      over = isOver();
    } while (!over && now < end);
  }
  Pollers::leave();
  return over;
}

}  // namespace gv::detail
