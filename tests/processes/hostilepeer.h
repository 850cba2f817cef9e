#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "conversation.h"

namespace processes {

/// A plain TCP socket under the hands of a test. No wait is longer than 20 s; one that would be
/// throws std::runtime_error.
class HostilePeer {
 public:
  static HostilePeer connectTo(int port);
  explicit HostilePeer(int socket) : socket_(socket) {}
  ~HostilePeer() { close(); }
  HostilePeer(HostilePeer&& other) noexcept : socket_(std::exchange(other.socket_, -1)) {}
  HostilePeer& operator=(HostilePeer&&) = delete;

  int descriptor() const { return socket_; }

  /// False when the other side has closed meanwhile; the rest is not sent then.
  bool send(std::string_view bytes);

  /// What has arrived, once there is something; empty at the end of the connection.
  std::string receive();
  /// The next frame; none at the end of the connection.
  std::optional<FrameBytes> receiveFrame();
  /// Waits for the end of the connection, whatever comes before it.
  bool isClosedByOther();

  /// Nothing more will be sent; reading goes on.
  void finishSending();
  void close();
  /// Closes with a reset instead of an orderly end.
  void reset();

 private:
  std::optional<std::string> receiveExactly(std::size_t size);

  int socket_;
};

/// A listening socket on a free port of 127.0.0.1 that does nothing by itself.
class ListeningSocket {
 public:
  ListeningSocket();
  ~ListeningSocket();
  ListeningSocket(const ListeningSocket&) = delete;
  ListeningSocket& operator=(const ListeningSocket&) = delete;

  int port() const { return port_; }
  /// Waits for the next connection, for 20 s.
  HostilePeer accept();

 private:
  int socket_;
  int port_;
};

}  // namespace processes
