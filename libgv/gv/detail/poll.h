#pragma once

#include <chrono>
#include <mutex>
#include <thread>

#include <gv/api.h>

namespace gv::detail {

/// How many threads of the process poll at the moment. More than there are cores would only take
/// the processor from those who could bring what is waited for.
class GV_API Pollers {
 public:
  /// False when there are enough: the caller is not counted then.
  static bool enter() noexcept;
  static void leave() noexcept;
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
/// other threads between looks. Returns false at once when too many poll already.
template <class Condition>
bool pollBriefly(const Condition& isOver,
                 std::chrono::microseconds longest = std::chrono::microseconds(20)) noexcept {
  constexpr std::chrono::microseconds beforeYield(3);
  if (isOver()) return true;
  if (!Pollers::enter()) return false;
  bool over = pollFor(beforeYield, isOver);
  if (!over) {
    const auto end = std::chrono::steady_clock::now() + longest;
    do {
      std::this_thread::yield();
      over = isOver();
    } while (!over && std::chrono::steady_clock::now() < end);
  }
  Pollers::leave();
  return over;
}

}  // namespace gv::detail
