#include "src/net/listener.h"

#include <sys/socket.h>
#include <unistd.h>

#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <cerrno>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <gv/log.h>

#include "src/net/reactor.h"
#include "src/net/resolve.h"
#include "src/net/tcpstream.h"

namespace gv::net {
namespace {

// Connections accepted before other sockets have their turn.
constexpr int acceptsInTurn = 16;
constexpr std::chrono::milliseconds retryPause{100};

// Errors of one newcomer: it is gone, and the next call of accept gives another.
bool concernsOneConnection(std::error_code error) {
  switch (error.value()) {
    case ECONNABORTED:
    case EPROTO:
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ETIMEDOUT:
    case EPERM:
      return true;
    default:
      return false;
  }
}

// A listening socket on the first address of `host` that takes one.
asio::ip::tcp::acceptor bindAndListen(const std::string& host, std::uint16_t port) {
  std::error_code error;
  for (const Endpoint& endpoint : resolve(host, port, error)) {
    const int descriptor = openSocket(endpoint, error);
    if (descriptor < 0) continue;
    asio::ip::tcp::acceptor acceptor(Reactor::context());
    acceptor.assign(endpoint.protocol(), descriptor, error);
    if (error) ::close(descriptor);
    if (!error) acceptor.set_option(asio::socket_base::reuse_address(true), error);
    if (!error) acceptor.bind(endpoint, error);
    if (!error) acceptor.listen(asio::socket_base::max_listen_connections, error);
    if (!error) return acceptor;
  }
  throw std::runtime_error("cannot listen on " + hostAndPort(host, port) + ": " + error.message());
}

/// The accepting side of a listener. Operations under way keep it alive; it ends with close().
class AcceptLoop : public std::enable_shared_from_this<AcceptLoop> {
 public:
  AcceptLoop(asio::ip::tcp::acceptor acceptor, Listener::AcceptHandler onAccepted,
             const wire::Limits& limits)
      : limits_(limits),
        acceptor_(std::move(acceptor)),
        retryTimer_(Reactor::context()),
        onAccepted_(std::make_shared<Listener::AcceptHandler>(std::move(onAccepted))) {}

  void wait();
  void close();

 private:
  struct Accepted {
    std::shared_ptr<Stream> stream;
    std::shared_ptr<Listener::AcceptHandler> handler;
    std::error_code error;
  };

  void acceptSome();
  Accepted acceptOne();
  void pause(std::error_code error);

  const wire::Limits limits_;
  bool paused_ = false;  // of the reactor's thread: the last attempt failed

  std::mutex mutex_;
  // Guarded by mutex_, so that close() may end them from any thread
  asio::ip::tcp::acceptor acceptor_;
  asio::steady_timer retryTimer_;
  std::shared_ptr<Listener::AcceptHandler> onAccepted_;  // empty once closed
};

void AcceptLoop::wait() {
  const std::lock_guard lock(mutex_);
  if (!onAccepted_) return;
  acceptor_.async_wait(asio::ip::tcp::acceptor::wait_read,
                       [self = shared_from_this()](std::error_code) { self->acceptSome(); });
}

void AcceptLoop::acceptSome() {
  for (int i = 0; i < acceptsInTurn; ++i) {
    Accepted accepted = acceptOne();
    if (!accepted.handler) return;
    if (accepted.stream) {
      paused_ = false;
      (*accepted.handler)(std::move(accepted.stream));
    } else if (accepted.error == std::errc::operation_would_block) {
      break;
    } else if (!concernsOneConnection(accepted.error)) {
      return pause(accepted.error);
    }
  }
  wait();
}

AcceptLoop::Accepted AcceptLoop::acceptOne() {
  const std::lock_guard lock(mutex_);
  Accepted accepted{nullptr, onAccepted_, {}};
  if (!onAccepted_) return accepted;
  Endpoint peer;
  const int descriptor = acceptSocket(acceptor_.native_handle(), peer, accepted.error);
  if (descriptor < 0) return accepted;
  accepted.stream = std::make_shared<TcpStream>(descriptor, peer, limits_);
  return accepted;
}

// Newcomers stay in the system's queue meanwhile. The socket remains readable: waiting for it
// would spin.
void AcceptLoop::pause(std::error_code error) {
  if (!std::exchange(paused_, true))
    GV_LOG(log::Level::Warning, "gvmessaging.net", "accept",
           "accepting is paused: " + error.message());
  const std::lock_guard lock(mutex_);
  if (!onAccepted_) return;
  retryTimer_.expires_after(retryPause);
  retryTimer_.async_wait([self = shared_from_this()](std::error_code) { self->acceptSome(); });
}

void AcceptLoop::close() {
  std::shared_ptr<Listener::AcceptHandler> ended;
  const std::lock_guard lock(mutex_);
  ended.swap(onAccepted_);
  std::error_code ignored;
  acceptor_.close(ignored);
  retryTimer_.cancel();
}

// What users hold: dropping it ends the loop.
class TcpListener final : public Listener {
 public:
  TcpListener(std::shared_ptr<AcceptLoop> loop, const Endpoint& bound)
      : loop_(std::move(loop)), port_(bound.port()), address_(endpointAddress(bound)) {}
  ~TcpListener() override { loop_->close(); }

  std::uint16_t boundPort() const override { return port_; }
  const std::string& boundAddress() const override { return address_; }
  void close() override { loop_->close(); }

 private:
  const std::shared_ptr<AcceptLoop> loop_;
  const std::uint16_t port_;
  const std::string address_;
};

}  // namespace

std::shared_ptr<Listener> Listener::listen(const std::string& host, std::uint16_t port,
                                           AcceptHandler onAccepted, const wire::Limits& limits) {
  auto acceptor = bindAndListen(host, port);
  const Endpoint bound = acceptor.local_endpoint();
  auto loop = std::make_shared<AcceptLoop>(std::move(acceptor), std::move(onAccepted), limits);
  auto listener = std::make_shared<TcpListener>(loop, bound);
  loop->wait();
  return listener;
}

}  // namespace gv::net
