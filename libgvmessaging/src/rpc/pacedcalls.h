#pragma once

#include <algorithm>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "src/net/stream.h"
#include "src/net/timer.h"
#include "src/wire/limits.h"

namespace gv::rpc {

/// Queued calls of a peer that does not read the replies to others. Its requests are read slowly
/// then, but many may have been read already: one of these is let through now and then, none while
/// so much waits that what they reply could be too much, and all of them go, in portions, once the
/// peer has read. Any thread.
class PacedCalls : public std::enable_shared_from_this<PacedCalls> {
 public:
  /// Hands a call to the event loop; one that is not let through may be added again. Holds the
  /// stream, runs no user code, and must not throw.
  using Call = std::function<void(bool isLetThrough)>;

  PacedCalls(const net::Stream& stream, const wire::Limits& limits)
      : stream_(stream), limits_(limits) {}

  /// False while too much waits for the peer. The stream must be held.
  bool mayBegin(bool isLetThrough) const {
    return stream_.pendingBytes() <= (isLetThrough ? most() : limits_.outputSlow);
  }
  /// False where it cannot be held back. One that comes after the end is dropped.
  bool add(Call call);
  /// Forgets them.
  void end();

 private:
  using Clock = std::chrono::steady_clock;

  /// What several of them reply at once still fits.
  std::size_t most() const { return std::max(limits_.outputSlow, limits_.outputStop / 2); }
  void look();
  void lookLaterLocked();
  std::vector<Call> takeLocked(std::size_t most);

  // There while calls are
  const net::Stream& stream_;
  const wire::Limits& limits_;

  std::mutex mutex_;  // guards what follows
  std::deque<Call> calls_;
  std::shared_ptr<net::Timer> timer_;  // while there are calls
  Clock::time_point lastSlow_;         // when one was let go though the peer does not read
  bool hasEnded_ = false;
};

}  // namespace gv::rpc
