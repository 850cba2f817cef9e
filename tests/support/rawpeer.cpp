#include "support/rawpeer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace house {
namespace {

ssize_t check(ssize_t result) {
  if (result < 0) throw std::system_error(errno, std::system_category());
  return result;
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int newSocket() {
  return static_cast<int>(check(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
}

/// What is sent leaves at once, however little it is.
void sendAtOnce(int socket) {
  const int on = 1;
  check(::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
}

void waitUntilReadable(int socket) {
  constexpr int guardMs = 30'000;
  pollfd wanted{socket, POLLIN, 0};
  if (check(::poll(&wanted, 1, guardMs)) == 0)
    throw std::runtime_error("the other side neither answered nor closed in time");
}

}  // namespace

RawPeer RawPeer::connectTo(int port) {
  RawPeer peer;
  peer.connect(port);
  return peer;
}

RawPeer::RawPeer() : socket_(newSocket()) {}

void RawPeer::connect(int port) {
  const sockaddr_in address = loopback(port);
  check(::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  sendAtOnce(socket_);
}

bool RawPeer::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && (errno == EPIPE || errno == ECONNRESET)) return false;
    bytes.remove_prefix(static_cast<std::size_t>(check(sent)));
  }
  return true;
}

std::size_t RawPeer::sendWhileTaken(std::string_view bytes, std::chrono::milliseconds patience) {
  std::size_t total = 0;
  pollfd wanted{socket_, POLLOUT, 0};
  while (total < bytes.size() && ::poll(&wanted, 1, static_cast<int>(patience.count())) == 1)
    total += static_cast<std::size_t>(check(
        ::send(socket_, bytes.data() + total, bytes.size() - total, MSG_NOSIGNAL | MSG_DONTWAIT)));
  return total;
}

std::string RawPeer::receive(std::size_t size) {
  waitUntilReadable(socket_);
  std::string bytes(size, '\0');
  bytes.resize(static_cast<std::size_t>(check(::recv(socket_, bytes.data(), size, 0))));
  return bytes;
}

std::string RawPeer::receiveAll(std::size_t size) {
  std::string bytes;
  while (bytes.size() < size) {
    const std::string piece = receive(size - bytes.size());
    if (piece.empty()) break;
    bytes += piece;
  }
  return bytes;
}

std::size_t RawPeer::receiveToTheEnd() {
  std::size_t total = 0;
  try {
    for (std::string more; !(more = receive(1u << 20)).empty();) total += more.size();
  } catch (const std::system_error& error) {
    if (error.code().value() != ECONNRESET) throw;
  }
  return total;
}

void RawPeer::finishSending() {
  if (::shutdown(socket_, SHUT_WR) != 0 && errno != ENOTCONN) check(-1);
}

void RawPeer::close() {
  if (socket_ >= 0) ::close(std::exchange(socket_, -1));
}

void RawPeer::reset() {
  const linger none{1, 0};
  check(::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &none, sizeof none));
  close();
}

RawListener::RawListener(int backlog) : socket_(newSocket()) {
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  check(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), size));
  check(::listen(socket_, backlog));
  check(::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size));
  port_ = ntohs(address.sin_port);
}

RawListener::~RawListener() {
  ::close(socket_);
}

RawPeer RawListener::accept() {
  waitUntilReadable(socket_);
  RawPeer peer(static_cast<int>(check(::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC))));
  sendAtOnce(peer.descriptor());
  return peer;
}

}  // namespace house
