#pragma once

#include <chrono>
#include <utility>

#include "src/net/readers.h"

namespace gv::net {

class TcpStream;

/// The leading thread's turn of reading one stream. What it sends on that stream meanwhile is put
/// off, so that the replies to many calls that arrived together leave together. One of no stream
/// hides the one that it is within.
class Turn {
 public:
  explicit Turn(const TcpStream* stream) : outer_(std::exchange(stream_, stream)) {
    if (!stream) return;
    begin_ = lastFlush_ = lastLook_ = Clock::now();
    steps_ = 0;
  }
  ~Turn() { stream_ = outer_; }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  /// True when the thread was replaced in the middle of it: another one reads the stream now.
  bool isLost() const { return Readers::isReplaced(); }
  static bool isLost(const TcpStream* stream) { return stream_ == stream && Readers::isReplaced(); }

  /// True while what is sent on the stream may wait for the end of the turn: not for long, and not
  /// at all where the calls before have taken longer than that.
  static bool mayPutOff(const TcpStream* stream) {
    constexpr std::chrono::microseconds longest(50);
    if (stream_ != stream || Readers::isReplaced()) return false;
    lastLook_ = Clock::now();
    if (lastLook_ - lastFlush_ < longest) return true;
    lastFlush_ = lastLook_;
    return false;
  }

  /// True when other streams are to have their turn. Asked in each step of a turn, it goes by the
  /// last look at the clock: that of what was sent, or its own in every eighth step.
  static bool isOver(const TcpStream* stream) {
    constexpr std::chrono::microseconds longest(50);
    if (stream_ != stream) return false;
    if (++steps_ % 8 == 0) lastLook_ = Clock::now();
    return lastLook_ - begin_ > longest;
  }

 private:
  using Clock = std::chrono::steady_clock;

  const TcpStream* const outer_;
  static inline thread_local const TcpStream* stream_ = nullptr;
  static inline thread_local Clock::time_point begin_;
  static inline thread_local Clock::time_point lastFlush_;
  static inline thread_local Clock::time_point lastLook_;
  static inline thread_local unsigned steps_ = 0;
};

}  // namespace gv::net
