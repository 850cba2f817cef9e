#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

/// A plain TCP socket, blocking: the far end that does what a well-behaved stream would not.
class RawPeer {
 public:
  static RawPeer connectTo(std::uint16_t port) {
    RawPeer peer;
    peer.connect(port);
    return peer;
  }

  RawPeer() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) { check(socket_); }
  ~RawPeer() { close(); }
  RawPeer(RawPeer&& other) noexcept : socket_(std::exchange(other.socket_, -1)) {}
  RawPeer& operator=(RawPeer&&) = delete;

  void connect(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    check(::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address));
  }

  void send(std::string_view bytes) {
    while (!bytes.empty()) {
      const auto sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      check(sent);
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  /// Sends what the system takes within @p patience of the last byte taken.
  std::size_t sendWhileTaken(std::string_view bytes, std::chrono::milliseconds patience) {
    std::size_t total = 0;
    pollfd wanted{socket_, POLLOUT, 0};
    while (total < bytes.size() && ::poll(&wanted, 1, static_cast<int>(patience.count())) == 1) {
      const auto sent =
          ::send(socket_, bytes.data() + total, bytes.size() - total, MSG_NOSIGNAL | MSG_DONTWAIT);
      check(sent);
      total += static_cast<std::size_t>(sent);
    }
    return total;
  }

  /// Up to @p size bytes; empty at the end of the stream. Throws std::system_error on a reset.
  std::string receive(std::size_t size) {
    std::string bytes(size, '\0');
    const auto got = ::recv(socket_, bytes.data(), size, 0);
    check(got);
    bytes.resize(static_cast<std::size_t>(got));
    return bytes;
  }

  /// Exactly @p size bytes, fewer only at the end of the stream.
  std::string receiveAll(std::size_t size) {
    std::string bytes;
    while (bytes.size() < size) {
      const std::string piece = receive(size - bytes.size());
      if (piece.empty()) break;
      bytes += piece;
    }
    return bytes;
  }

  void close() {
    if (socket_ >= 0) ::close(std::exchange(socket_, -1));
  }

  /// Ends the connection with a reset.
  void reset() {
    const linger none{1, 0};
    check(::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &none, sizeof none));
    close();
  }

 private:
  static void check(ssize_t result) {
    if (result < 0) throw std::system_error(errno, std::system_category());
  }

  int socket_;
};

/// A listening socket that accepts nothing: the system completes connections, nobody speaks.
class RawListener {
 public:
  /// The system drops whoever knocks when more than @p backlog wait.
  explicit RawListener(int backlog = 8)
      : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address_;
    auto* address = reinterpret_cast<sockaddr*>(&address_);
    if (::bind(socket_, address, size) != 0 || ::listen(socket_, backlog) != 0 ||
        ::getsockname(socket_, address, &size) != 0)
      throw std::system_error(errno, std::system_category());
  }
  ~RawListener() { ::close(socket_); }
  RawListener(const RawListener&) = delete;
  RawListener& operator=(const RawListener&) = delete;

  std::uint16_t port() const { return ntohs(address_.sin_port); }
  std::string url() const { return "tcp://127.0.0.1:" + std::to_string(port()); }

 private:
  int socket_;
  sockaddr_in address_{};
};
