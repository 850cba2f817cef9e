#include "src/net/nativesocket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "src/net/deadpeers.h"

namespace gv::net {
namespace {

#ifdef MSG_NOSIGNAL
constexpr int sendFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
#else
constexpr int sendFlags = MSG_DONTWAIT;
#endif

std::error_code lastError() {
  return {errno, std::system_category()};
}

template <class Call>
auto repeated(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

Transfer asTransfer(ssize_t result) {
  if (result >= 0) return {static_cast<std::size_t>(result), false, false, {}};
  if (errno == EAGAIN || errno == EWOULDBLOCK) return {0, false, true, {}};
  return {0, false, false, lastError()};
}

void setOption(int socket, int level, int option, int value) {
  // Best effort: the connection works without any of them.
  static_cast<void>(::setsockopt(socket, level, option, &value, sizeof value));
}

// Finds a dead link without traffic: probes for the bound, once it was quiet for a quarter of it.
// So none is given up before it has been dead for the bound, whenever it died.
void keepAlive(int socket, std::chrono::milliseconds bound) {
  const int seconds = static_cast<int>(std::chrono::ceil<std::chrono::seconds>(bound).count());
  const int idle = std::max(1, seconds / 4);
  const int interval = std::max(1, seconds / 6);
  setOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
#ifdef TCP_KEEPIDLE
  setOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, idle);
#else
  setOption(socket, IPPROTO_TCP, TCP_KEEPALIVE, idle);
#endif
  setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, interval);
  setOption(socket, IPPROTO_TCP, TCP_KEEPCNT, (seconds + interval - 1) / interval);
}

#ifndef SOCK_CLOEXEC
int prepared(int socket) {
  if (socket >= 0) {
    ::fcntl(socket, F_SETFD, FD_CLOEXEC);
    ::fcntl(socket, F_SETFL, ::fcntl(socket, F_GETFL) | O_NONBLOCK);
  }
  return socket;
}
#endif

}  // namespace

int openSocket(const Endpoint& endpoint, std::error_code& error) {
  const int family = endpoint.protocol().family();
#ifdef SOCK_CLOEXEC
  const int socket = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP);
#else
  const int socket = prepared(::socket(family, SOCK_STREAM, IPPROTO_TCP));
#endif
  if (socket < 0) error = lastError();
  return socket;
}

int acceptSocket(int listening, Endpoint& peer, std::error_code& error) {
  socklen_t size = static_cast<socklen_t>(peer.capacity());
  const int socket = repeated([&] {
    size = static_cast<socklen_t>(peer.capacity());
#ifdef SOCK_CLOEXEC
    return ::accept4(listening, peer.data(), &size, SOCK_CLOEXEC | SOCK_NONBLOCK);
#else
    return prepared(::accept(listening, peer.data(), &size));
#endif
  });
  if (socket < 0) {
    error = lastError();
  } else {
    peer.resize(size);
  }
  return socket;
}

bool hasGoneUnheard(int socket) {
  char first;
  const auto got = repeated([&] { return ::recv(socket, &first, 1, MSG_PEEK | MSG_DONTWAIT); });
  return got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
}

std::size_t mostDescriptors() {
  rlimit limit{};
  static_cast<void>(::getrlimit(RLIMIT_NOFILE, &limit));  // cannot fail with these arguments
  return limit.rlim_cur;
}

void tuneConnection(int socket) {
  setOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
  keepAlive(socket, peerTimeout());
#ifdef SO_NOSIGPIPE
  setOption(socket, SOL_SOCKET, SO_NOSIGPIPE, 1);
#endif
}

Transfer sendSome(int socket, std::span<const iovec> buffers) {
  msghdr message{};
  message.msg_iov = const_cast<iovec*>(buffers.data());
  message.msg_iovlen = buffers.size();
  return asTransfer(repeated([&] { return ::sendmsg(socket, &message, sendFlags); }));
}

std::size_t unacknowledgedBytes(int socket) {
  int bytes = 0;
#ifdef SO_NWRITE
  socklen_t size = sizeof bytes;
  static_cast<void>(::getsockopt(socket, SOL_SOCKET, SO_NWRITE, &bytes, &size));
#else
  static_cast<void>(::ioctl(socket, TIOCOUTQ, &bytes));
#endif
  return static_cast<std::size_t>(bytes);
}

Transfer receiveSome(int socket, std::span<char> buffer) {
  Transfer got = asTransfer(
      repeated([&] { return ::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT); }));
  got.isFull = got.bytes == buffer.size();
  return got;
}

}  // namespace gv::net
