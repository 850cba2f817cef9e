#pragma once

#include <algorithm>
#include <chrono>

namespace gv::net {

/// Decides how long to poll before a sleep, from how such waits ended of late. A value.
///
/// What two sides that poll exchange comes within microseconds; once both sleep, each finds the
/// other too slow to be worth polling for. So a wait that follows others closely is polled for
/// longer now and then: that brings both back. What takes longer each time, as large payloads do,
/// is polled for longer each time.
class Patience {
 public:
  using Duration = std::chrono::steady_clock::duration;

  /// How long the wait that begins may be polled; 0: not at all.
  std::chrono::microseconds next() {
    if (isQuiet_) return std::chrono::microseconds(0);
    if (failures_ < vain) return usual_;
    return failures_ % retryEach == 0 ? longest : std::chrono::microseconds(0);
  }

  /// Polling took so long; it has paid if what was waited for came.
  void polled(bool hasPaid, Duration time) {
    if (!hasPaid) return notPolled();
    failures_ = 0;
    usual_ = std::clamp(std::chrono::duration_cast<std::chrono::microseconds>(2 * time), shortest,
                        longest);
  }
  /// What was waited for was not polled for.
  void notPolled() { ++failures_; }
  /// How long the wait took in all.
  void waited(Duration time) {
    constexpr std::chrono::microseconds quiet(500);
    isQuiet_ = time > quiet;
  }

 private:
  static constexpr std::chrono::microseconds shortest{20};
  static constexpr std::chrono::microseconds longest{100};
  static constexpr unsigned vain = 3;
  static constexpr unsigned retryEach = 8;

  std::chrono::microseconds usual_ = shortest;
  unsigned failures_ = 0;  // in a row
  bool isQuiet_ = true;
};

}  // namespace gv::net
