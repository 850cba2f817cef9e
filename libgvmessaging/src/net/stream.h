#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace gv::net {

using Bytes = std::span<const char>;

/// What happens to a stream. Called by the thread that reads it, one call at a time and with no
/// lock held; must not throw (an exception closes the stream with its text).
class StreamHandler {
 public:
  virtual ~StreamHandler() = default;

  /// Where the bytes that come next are to be put, one at least. onInput() follows.
  virtual std::span<char> inputSpace() = 0;
  /// The first @p count bytes of inputSpace() have arrived. 0: none have, and the space may be
  /// given back.
  virtual void onInput(std::size_t count) = 0;

  /// The stream has ended: exactly once, and nothing follows. @p cause is the text given to
  /// close(), "connection closed by peer", or the system's own.
  virtual void onClosed(const std::string& cause) = 0;
};

/// A connected two-way stream of bytes. Every operation may be called from any thread, from within
/// the handler too, and none of them blocks.
///
/// Life: reads nothing before start(). From then on it keeps itself and its handler alive until it
/// is closed, by the peer or by close(); then the handler is told and let go. One that is dropped
/// before start() closes its connection.
///
/// While much output waits for the peer, its own requests are read slowly and at last not at all
/// (wire::Limits::outputSlow and outputStop): two peers that send each other large frames at once
/// must both go on reading, one that only asks and never reads must not fill the memory. As little
/// input may ask for much output, and for much time, the handler looks at isTurnOver().
class Stream {
 public:
  virtual ~Stream() = default;

  /// Begins to read, for @p handler. Once only. On a stream that has ended, onClosed() follows.
  virtual void start(std::shared_ptr<StreamHandler> handler) = 0;

  /// Sends @p pieces, one behind the other, after everything sent before; they never mix with those
  /// of another caller. Written at once, from where they are, as far as the system takes them; the
  /// rest is copied and queued without bound: see pendingBytes(). What little the thread sends that
  /// reads this stream may leave when its turn is over, in one piece. False when the stream has
  /// ended: the peer has no whole message of it. True does not say that the peer got it.
  virtual bool send(std::span<const Bytes> pieces) = 0;
  bool send(Bytes bytes) { return send(std::span(&bytes, 1)); }

  /// Writes what send() has put off until the thread's turn of reading this stream is over, and, if
  /// that seems worth it and nobody else reads, reads in the calling thread as long as @p isWanted
  /// says so, some microseconds at most.
  virtual void readWhile(const std::function<bool()>& isWanted) { static_cast<void>(isWanted); }

  /// The peer sends more than replies: for a while, nobody borrows the stream by readWhile().
  virtual void expectUnasked() {}
  /// True when another thread took over reading while the calling one was in the handler's
  /// onInput(), which must return then and touch nothing of the reading side.
  virtual bool hasLostTurn() const { return false; }

  /// True when the handler is to return from onInput() and leave the rest of what it has: its turn
  /// has taken long while others wait, or more output waits than what is read beside. Another
  /// onInput(), of 0 bytes as a rule, follows when it may go on.
  virtual bool isTurnOver() { return false; }
  /// The peer has much under way already: its next turn begins a little later. From onInput().
  virtual void restAfterTurn() {}

  /// Bytes taken by send() and not yet by the system.
  virtual std::size_t pendingBytes() const = 0;
  /// How long the system has had no room for them, and the peer taken nothing of what it has.
  virtual std::chrono::milliseconds stalledFor() const { return {}; }

  /// Ends the stream now: pending output is dropped, no more is read (an onInput() that another
  /// thread has under way may still come), onClosed(cause) follows. Repeated calls do nothing.
  virtual void close(const std::string& cause) = 0;

  /// Takes no more output, drops input, and ends the stream when the peer has got what was pending
  /// and closed its side, after @p bound at the latest. onClosed(cause) follows.
  virtual void closeAfterFlush(const std::string& cause,
                               std::chrono::milliseconds bound = std::chrono::seconds(1)) = 0;

  /// The other side as "tcp://ip:port", or "tcps://ip:port" where it speaks TLS, for texts.
  virtual const std::string& peerName() const = 0;

  /// The numeric address of the other side, and of this one, without port or brackets.
  virtual const std::string& peerAddress() const = 0;
  virtual const std::string& localAddress() const = 0;
};

}  // namespace gv::net
