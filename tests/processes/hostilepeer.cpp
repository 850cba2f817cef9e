#include "hostilepeer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace processes {
namespace {

constexpr int guardMs = 20'000;

int check(int result) {
  if (result < 0) throw std::system_error(errno, std::system_category());
  return result;
}

int newSocket() {
  return check(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void waitUntilReadable(int socket) {
  pollfd wanted{socket, POLLIN, 0};
  if (check(::poll(&wanted, 1, guardMs)) == 0)
    throw std::runtime_error("the other side neither answered nor closed in time");
}

}  // namespace

HostilePeer HostilePeer::connectTo(int port) {
  HostilePeer peer(newSocket());
  const sockaddr_in address = loopback(port);
  check(::connect(peer.socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  const int on = 1;
  check(::setsockopt(peer.socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
  return peer;
}

bool HostilePeer::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && (errno == EPIPE || errno == ECONNRESET)) return false;
    check(static_cast<int>(sent));
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

std::string HostilePeer::receive() {
  waitUntilReadable(socket_);
  std::string bytes(65536, '\0');
  const auto got = ::recv(socket_, bytes.data(), bytes.size(), 0);
  // A close with bytes of ours still unread arrives as a reset.
  if (got < 0 && errno == ECONNRESET) return {};
  bytes.resize(static_cast<std::size_t>(check(static_cast<int>(got))));
  return bytes;
}

std::optional<std::string> HostilePeer::receiveExactly(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t have = 0; have < size;) {
    waitUntilReadable(socket_);
    const auto got = ::recv(socket_, bytes.data() + have, size - have, 0);
    if (got == 0 || (got < 0 && errno == ECONNRESET)) return {};
    have += static_cast<std::size_t>(check(static_cast<int>(got)));
  }
  return bytes;
}

std::optional<FrameBytes> HostilePeer::receiveFrame() {
  const auto header = receiveExactly(HeaderSize);
  if (!header) return {};
  const auto payload = receiveExactly(payloadSizeOf(*header));
  if (!payload) return {};
  return FrameBytes(*header + *payload);
}

bool HostilePeer::isClosedByOther() {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(guardMs);
  while (std::chrono::steady_clock::now() < end)
    if (receive().empty()) return true;
  return false;
}

void HostilePeer::finishSending() {
  if (::shutdown(socket_, SHUT_WR) != 0 && errno != ENOTCONN) check(-1);
}

void HostilePeer::close() {
  if (socket_ >= 0) ::close(std::exchange(socket_, -1));
}

void HostilePeer::reset() {
  const linger none{1, 0};
  check(::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &none, sizeof none));
  close();
}

ListeningSocket::ListeningSocket() : socket_(newSocket()) {
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  check(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), size));
  check(::listen(socket_, 8));
  check(::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size));
  port_ = ntohs(address.sin_port);
}

ListeningSocket::~ListeningSocket() {
  ::close(socket_);
}

HostilePeer ListeningSocket::accept() {
  waitUntilReadable(socket_);
  return HostilePeer(check(::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC)));
}

}  // namespace processes
