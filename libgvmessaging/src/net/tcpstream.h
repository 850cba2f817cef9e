#pragma once

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "src/net/nativesocket.h"
#include "src/net/outputqueue.h"
#include "src/net/stream.h"
#include "src/wire/limits.h"

namespace gv::net {

/// "tcp://ip:port" of @p endpoint, and its bare address; an IPv4 address mapped into IPv6 is given
/// as what it is.
std::string endpointName(const Endpoint& endpoint);
std::string endpointAddress(const Endpoint& endpoint);

/// A stream over a connected TCP socket.
///
/// A sender writes by itself when nobody else is writing and nothing waits. Whatever comes
/// meanwhile is queued, and written by that sender for a few rounds, then by the reactor. The
/// socket is read, waited for and closed by the reactor only, and never closed while a sender uses
/// its descriptor.
///
///     Open ──closeAfterFlush──> Flushing ──> Closing ──(reactor)──> finished_
///       └───────────────close, peer, error──────^
class TcpStream final : public Stream, public std::enable_shared_from_this<TcpStream> {
 public:
  TcpStream(asio::ip::tcp::socket socket, const Endpoint& peer, const wire::Limits& limits);

  void start(std::shared_ptr<StreamHandler> handler) override;
  using Stream::send;
  bool send(std::span<const Bytes> pieces) override;
  std::size_t pendingBytes() const override;
  void close(const std::string& cause) override;
  void closeAfterFlush(const std::string& cause, std::chrono::milliseconds bound) override;
  const std::string& peerName() const override { return peerName_; }
  const std::string& peerAddress() const override { return peerAddress_; }
  const std::string& localAddress() const override { return localAddress_; }

 private:
  enum class State { Open, Flushing, Closing };
  using Lock = std::unique_lock<std::mutex>;

  Transfer writeQueued(Lock& lock);
  void writeRoundsLocked(Lock& lock, Transfer last);
  void afterWriteLocked(const Transfer& last);
  void waitWritable();
  void onWritable();

  void waitReadable();
  void readAndWait(int rounds);
  bool readOnce();
  template <class F>
  void callHandler(const F& call);
  Transfer receive();
  void readRest();

  void endLocked(const std::string& cause);
  void postFinish();
  void finish();
  void beginFlush(std::chrono::milliseconds bound);
  void shutdownWrite();
  State state() const;

  // Constant after construction
  asio::io_context& context_;
  const wire::Limits limits_;
  const std::string peerName_;
  const std::string peerAddress_;
  const std::string localAddress_;
  const int
      descriptor_;  // of socket_; valid while writing_, and in the reactor's thread until finished_

  // Of the reactor's thread
  asio::ip::tcp::socket socket_;
  asio::steady_timer slowTimer_;
  asio::steady_timer flushTimer_;
  std::shared_ptr<StreamHandler> handler_;
  bool reading_ = false;  // somebody will call readAndWait()
  bool finished_ = false;

  mutable std::mutex mutex_;
  // Guarded by mutex_
  State state_ = State::Open;
  std::string cause_;  // set when state_ leaves Open
  OutputQueue output_;
  std::size_t direct_ = 0;       // bytes that a sender is writing past the queue
  bool writing_ = false;         // some thread uses the descriptor to write
  bool awaitsWritable_ = false;  // the reactor will call onWritable()
  bool readRest_ = false;        // writing failed: what the peer sent before is still to be read
};

}  // namespace gv::net
