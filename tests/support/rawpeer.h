#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <utility>

namespace house {

/// A plain TCP socket on 127.0.0.1: the far end that does what a well-behaved one would not. Throws
/// std::system_error, and std::runtime_error where nothing arrives for 30 s.
class RawPeer {
 public:
  static RawPeer connectTo(int port);

  RawPeer();
  explicit RawPeer(int socket) : socket_(socket) {}
  ~RawPeer() { close(); }
  RawPeer(RawPeer&& other) noexcept : socket_(std::exchange(other.socket_, -1)) {}
  RawPeer& operator=(RawPeer&&) = delete;

  void connect(int port);
  int descriptor() const { return socket_; }

  /// False when the other side has closed meanwhile; the rest is not sent then.
  bool send(std::string_view bytes);
  /// Sends what the system takes within @p patience of the last byte taken.
  std::size_t sendWhileTaken(std::string_view bytes, std::chrono::milliseconds patience);

  /// Up to @p size bytes; empty at the end of the stream. Throws on a reset.
  std::string receive(std::size_t size = 65536);
  /// Exactly @p size bytes, fewer only at the end of the stream.
  std::string receiveAll(std::size_t size);
  /// Waits for the end of the stream or a reset, whatever comes before it: so many bytes.
  std::size_t receiveToTheEnd();

  /// Nothing more will be sent; reading goes on.
  void finishSending();
  void close();
  /// Ends the connection with a reset.
  void reset();

 private:
  int socket_;
};

/// A listening socket on a free port of 127.0.0.1 that does nothing by itself: the system completes
/// connections, nobody speaks.
class RawListener {
 public:
  /// The system drops whoever knocks when more than @p backlog wait.
  explicit RawListener(int backlog = 8);
  ~RawListener();
  RawListener(const RawListener&) = delete;
  RawListener& operator=(const RawListener&) = delete;

  int port() const { return port_; }
  int descriptor() const { return socket_; }
  std::string url() const { return "tcp://127.0.0.1:" + std::to_string(port_); }
  RawPeer accept();

 private:
  int socket_;
  int port_;
};

/// A port that never answers: its queue of newcomers is full.
struct BlackHole {
  const RawListener listening{0};
  const RawPeer queued = RawPeer::connectTo(listening.port());
};

}  // namespace house
