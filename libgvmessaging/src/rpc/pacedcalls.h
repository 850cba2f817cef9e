#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "src/net/stream.h"
#include "src/net/timer.h"

namespace gv::rpc {

/// Queued calls of a peer that does not read the replies to others. Its requests are read slowly
/// then, but many may have been read already: these are let go as slowly, and all of them, in
/// portions, once the peer has read. Any thread.
class PacedCalls : public std::enable_shared_from_this<PacedCalls> {
 public:
  /// A call hands itself to the event loop. It holds the stream, and runs no user code.
  using Call = std::function<void()>;

  PacedCalls(const net::Stream& stream, std::size_t limit) : stream_(stream), limit_(limit) {}

  /// True while more than the limit waits for the peer. The stream must be held.
  bool isSlow() const { return stream_.pendingBytes() > limit_; }
  void add(Call call);
  /// Forgets them.
  void end();

 private:
  void letGo();
  void waitLocked(std::chrono::milliseconds time);

  const net::Stream& stream_;  // there while calls are
  const std::size_t limit_;

  std::mutex mutex_;  // guards what follows
  std::deque<Call> calls_;
  std::shared_ptr<net::Timer> timer_;  // while there are calls
  bool hasEnded_ = false;
};

}  // namespace gv::rpc
