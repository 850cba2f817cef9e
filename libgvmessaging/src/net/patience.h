#pragma once

#include <chrono>

namespace gv::net {

/// Decides how long to poll before a sleep, from how such waits ended of late. A value.
///
/// What two sides that poll exchange comes within microseconds; once both sleep, each finds the
/// other too slow to be worth polling for. So a wait that follows others closely is polled for
/// longer now and then: that brings both back.
class Patience {
 public:
  using Duration = std::chrono::steady_clock::duration;

  /// How long the wait that begins may be polled; 0: not at all.
  std::chrono::microseconds next() {
    constexpr std::chrono::microseconds usual(20);
    constexpr std::chrono::microseconds longer(60);
    constexpr int vain = 3;
    constexpr int retryEach = 8;
    if (isQuiet_) return std::chrono::microseconds(0);
    if (failures_ < vain) return usual;
    return failures_ % retryEach == 0 ? longer : std::chrono::microseconds(0);
  }

  /// What was waited for came while it was polled for.
  void pollingPaid() { failures_ = 0; }
  /// It did not, or was not polled for.
  void pollingFailed() { ++failures_; }
  /// How long the wait took in all.
  void waited(Duration time) {
    constexpr std::chrono::microseconds quiet(500);
    isQuiet_ = time > quiet;
  }

 private:
  int failures_ = 0;
  bool isQuiet_ = true;
};

}  // namespace gv::net
