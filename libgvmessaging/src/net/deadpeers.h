#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include <gvmessaging/api.h>

#include "src/net/stream.h"

namespace gv::net {

/// How long a connection may go without a sign of life of a peer that owes one: 30 s, or what
/// GV_PEER_TIMEOUT_MS says, in milliseconds. Read once.
GVMESSAGING_API std::chrono::milliseconds peerTimeout();

/// Why a connection ended where the system says @p error: keep-alive speaks of a time-out only.
std::string lossText(const std::error_code& error);

/// What the system knows about the sending side of one connection.
struct SendingState {
  unsigned inFlight = 0;     // segments sent and not acknowledged
  unsigned unsentBytes = 0;  // accepted from us, waiting for the peer's window or for their turn
  unsigned window = 0;       // bytes that the peer would take
  unsigned probes = 0;       // sent to a peer that takes nothing, unanswered so far
  unsigned retransmissions = 0;  // since the connection began
  std::chrono::milliseconds sinceAcknowledgement{0};
};

/// What successive looks at one connection say about its peer. A value; knows no socket.
///
/// A peer is dead that for the whole bound acknowledged nothing although it should have: there were
/// bytes for it all the while, and either its window was open, or two attempts to have a closed one
/// opened stayed unanswered. They are up to two minutes apart, so that time alone says nothing.
class GVMESSAGING_API Silence {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// Takes in what was seen at @p now.
  void look(const SendingState& seen, TimePoint now);

  /// True when there were bytes to be acknowledged at the last look.
  bool isAwaiting() const { return since_.has_value(); }

  bool isDeath(std::chrono::milliseconds bound) const;

 private:
  std::optional<TimePoint> since_;  // none while nothing is to be acknowledged
  TimePoint lastLook_;
  unsigned retransmissionsBefore_ = 0;  // as since_ began
  unsigned unanswered_ = 0;
  bool mustAnswer_ = false;
};

/// Finds connections whose peer is gone while bytes are on their way, and closes them. A quiet
/// connection is the business of keep-alive, which does nothing while a byte is unacknowledged.
///
/// Looks at the connections ten times within the bound, in the network's thread, and only while one
/// of them has something unacknowledged. May be used from any thread.
class DeadPeers {
 public:
  DeadPeers() = delete;

  /// From now until forget(), which must come before the descriptor is closed.
  static void watch(int descriptor, std::weak_ptr<Stream> stream);
  static void forget(int descriptor);

  /// To be called behind each write to a socket.
  static void onWritten() {
    if (!isLooking_.load(std::memory_order_relaxed)) beginLooking();
  }

 private:
  static void beginLooking();
  static void look();

  static std::atomic<bool> isLooking_;  // a look is to come
};

}  // namespace gv::net
