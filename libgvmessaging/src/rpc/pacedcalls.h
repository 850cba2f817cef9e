#pragma once

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
/// then, but many may have been read already: one of these is let go now and then, none while the
/// output is full, and all of them, in portions, once the peer has read. Any thread.
class PacedCalls : public std::enable_shared_from_this<PacedCalls> {
 public:
  /// Hands a call to the event loop; one that is not let through may be added again. Holds the
  /// stream, runs no user code, and must not throw.
  using Call = std::function<void(bool isLetThrough)>;

  PacedCalls(const net::Stream& stream, const wire::Limits& limits)
      : stream_(stream), limits_(limits) {}

  /// True while much waits for the peer. The stream must be held.
  bool isSlow() const { return stream_.pendingBytes() > limits_.outputSlow; }
  void add(Call call);
  /// Forgets them.
  void end();

 private:
  using Clock = std::chrono::steady_clock;

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
