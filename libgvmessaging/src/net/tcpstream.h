#pragma once

#include <asio/ip/tcp.hpp>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "src/net/nativesocket.h"
#include "src/net/outputqueue.h"
#include "src/net/patience.h"
#include "src/net/readers.h"
#include "src/net/stream.h"
#include "src/net/timer.h"
#include "src/wire/limits.h"

namespace gv::net {

/// "tcp://ip:port" of @p endpoint, and its bare address; an IPv4 address mapped into IPv6 is given
/// as what it is.
std::string endpointName(const Endpoint& endpoint);
std::string endpointAddress(const Endpoint& endpoint);

/// A stream over a connected TCP socket.
///
/// Two roles are taken in turn. The writer sends: a sender by itself when nobody else is writing;
/// whatever comes meanwhile is queued, and written by that sender for a few rounds, then by the
/// readers. The reader receives and tells the handler: the leader of the readers, or a caller that
/// waits for a reply and has borrowed the socket. Who gives back the last role of a closed stream
/// sends it to the network's thread, which closes the descriptor and tells the handler.
///
///     Open ──closeAfterFlush──> Flushing ──> Closing ──(no roles, network's thread)──> isFinished_
///       └───────────────close, peer, error──────^
class TcpStream final : public Stream,
                        public ReadySocket,
                        public std::enable_shared_from_this<TcpStream> {
 public:
  /// Takes over the descriptor of a connected socket that does not block.
  TcpStream(int descriptor, const Endpoint& peer, const wire::Limits& limits);
  ~TcpStream() override;

  void start(std::shared_ptr<StreamHandler> handler) override;
  using Stream::send;
  bool send(std::span<const Bytes> pieces) override;
  void readWhile(const std::function<bool()>& isWanted) override;
  void expectUnasked() override;
  bool hasLostTurn() const override;
  bool isTurnOver() override;
  void restAfterTurn() override { isToRest_.store(true, std::memory_order_relaxed); }
  std::size_t pendingBytes() const override;
  std::chrono::milliseconds stalledFor() const override;
  void close(const std::string& cause) override;
  void closeAfterFlush(const std::string& cause, std::chrono::milliseconds bound) override;
  const std::string& peerName() const override { return peerName_; }
  const std::string& peerAddress() const override { return peerAddress_; }
  const std::string& localAddress() const override { return localAddress_; }

 private:
  enum class State { Open, Flushing, Closing };
  enum class Reading { Nobody, Leader, Caller };
  using Lock = std::unique_lock<std::mutex>;

  void onReady(bool canRead, bool canWrite) override;
  void onTurn() override;
  void leaveRest() override;
  bool isStillLent() override;

  // tcpstream_write.cpp
  Transfer writeQueued(Lock& lock);
  void writeRoundsLocked(Lock& lock, Transfer last);
  void afterWriteLocked(const Transfer& last);
  void flushLocked(Lock& lock);
  void onWritable();
  void chokeLocked();

  // tcpstream.cpp
  bool takeReadingLocked(Reading by);
  void giveBackReading();
  void read(int rounds);
  bool readOnce();
  Transfer receive();
  void readRest();
  void watchLocked();
  void goOnLaterLocked();
  void pauseLocked(std::chrono::milliseconds time);
  template <class F>
  void callHandler(const F& call);
  bool borrow(const std::function<bool()>& isWanted, std::chrono::microseconds longest);

  void track();
  void endLocked(const std::string& cause);
  void finishIfFreeLocked();
  void finish();
  void releaseSocket();
  void shutdownIfFlushedLocked();
  State state() const;

  // Constant after construction
  const wire::Limits limits_;
  const std::string peerName_;
  const std::string peerAddress_;
  const std::string localAddress_;
  const int descriptor_;  // valid for who has a role, until it is finished

  std::shared_ptr<StreamHandler> handler_;  // of the reader, then of finish()

  mutable std::mutex mutex_;
  // Guarded by mutex_
  State state_ = State::Open;
  std::string cause_;  // set when state_ leaves Open
  bool isStarted_ = false;
  std::shared_ptr<TcpStream> keptAlive_;  // itself, from start to end
  bool isFinished_ = false;
  bool isFinishing_ = false;  // the network's thread will call finish()

  OutputQueue output_;
  std::size_t direct_ = 0;       // bytes that a sender is writing past the queue
  bool writing_ = false;         // the writer's role
  bool awaitsWritable_ = false;  // the readers will call onWritable()
  // As stalledFor() last saw it: when the peer took something, and what it had left
  mutable std::chrono::steady_clock::time_point stalledAt_;
  mutable std::size_t unacknowledged_ = 0;  // 0: not known since the last write
  bool readRest_ = false;  // writing failed: what the peer sent before is still to be read
  std::shared_ptr<Timer> flushTimer_;

  Reading reading_ = Reading::Nobody;
  std::uint64_t key_ = 0;              // with the readers, once it is watched
  ReadinessSet::Interest watched_{};   // by them
  bool isPaused_ = false;              // until pauseTimer_
  bool isResting_ = false;             // that is why
  bool isToGoOn_ = false;              // the readers were told
  std::atomic<bool> isToRest_{false};  // set by the reader
  std::atomic<bool> hasLeft_{false};   // the handler, maybe; set under mutex_ or by the reader
  std::shared_ptr<Timer> pauseTimer_;

  bool isLent_ = false;  // a caller has it, or had it a moment ago
  std::chrono::steady_clock::time_point lastBorrowed_;
  std::chrono::steady_clock::time_point unaskedUntil_;
  Patience patience_;  // of callers
};

}  // namespace gv::net
