#include "src/net/listener.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <time.h>
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
constexpr std::chrono::seconds tellAgainAfter{10};

// What the network's thread may have used of the processor in each period for accepting to go on.
constexpr std::chrono::milliseconds budgetPeriod{10};
constexpr std::chrono::microseconds budget{1'000};

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

bool isOutOfDescriptors(std::error_code error) {
  return error.value() == EMFILE || error.value() == ENFILE;
}

std::chrono::nanoseconds processorTimeOfThread() {
  timespec used{};
  static_cast<void>(::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used));
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

/// A descriptor for the hour when there is no other: given up, a newcomer can be accepted with it,
/// and told by being closed that there is no place.
class SpareDescriptor {
 public:
  SpareDescriptor() { renew(); }
  ~SpareDescriptor() { giveUp(); }
  SpareDescriptor(const SpareDescriptor&) = delete;
  SpareDescriptor& operator=(const SpareDescriptor&) = delete;

  bool renew() {
    if (descriptor_ < 0) descriptor_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    return descriptor_ >= 0;
  }
  void giveUp() {
    if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
  }

 private:
  int descriptor_ = -1;
};

/// The accepting side of a listener. Operations under way keep it alive; it ends with close().
class AcceptLoop : public std::enable_shared_from_this<AcceptLoop> {
 public:
  AcceptLoop(asio::ip::tcp::acceptor acceptor, Listener::AcceptHandler onAccepted,
             Listener::MakeRoom makeRoom, const wire::Limits& limits)
      : limits_(limits),
        makeRoom_(std::move(makeRoom)),
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
  bool acceptNext();
  Accepted acceptOne();
  bool makeRoom();
  bool isBudgetSpent();
  void tell(const std::string& text);
  void resumeAt(std::chrono::steady_clock::time_point time);

  const wire::Limits limits_;
  const Listener::MakeRoom makeRoom_;

  // Of the reactor's thread
  std::chrono::steady_clock::time_point tellAgainAt_;
  std::chrono::steady_clock::time_point periodEnd_;
  std::chrono::nanoseconds usedBefore_{};  // by the thread, before the period
  SpareDescriptor spare_;

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
  try {
    for (int i = 0; i < acceptsInTurn && acceptNext(); ++i) {
    }
    isBudgetSpent() ? resumeAt(periodEnd_) : wait();
  } catch (const std::exception& error) {
    // The socket remains readable: waiting for it would spin.
    tell(std::string("accepting is paused: ") + error.what());
    resumeAt(std::chrono::steady_clock::now() + retryPause);
  }
}

/// False when this turn is over. Throws when the next one has to wait, or was lost for lack of
/// memory.
bool AcceptLoop::acceptNext() {
  Accepted accepted = acceptOne();
  if (!accepted.handler || accepted.error == std::errc::operation_would_block) return false;
  if (accepted.stream) {
    (*accepted.handler)(std::move(accepted.stream));
    return true;
  }
  // The room is there when the handlers have run that close what had it.
  if (isOutOfDescriptors(accepted.error) && makeRoom()) return false;
  if (!concernsOneConnection(accepted.error)) throw std::system_error(accepted.error);
  return true;
}

AcceptLoop::Accepted AcceptLoop::acceptOne() {
  const std::lock_guard lock(mutex_);
  Accepted accepted{nullptr, onAccepted_, {}};
  if (!onAccepted_) return accepted;
  Endpoint peer;
  const int descriptor = acceptSocket(acceptor_.native_handle(), peer, accepted.error);
  if (descriptor < 0) return accepted;
  if (hasGoneUnheard(descriptor)) {  // of a flood, most have
    ::close(descriptor);
    accepted.error = std::make_error_code(std::errc::connection_aborted);
    return accepted;
  }
  try {
    accepted.stream = std::make_shared<TcpStream>(descriptor, peer, limits_);
  } catch (...) {
    ::close(descriptor);
    throw;
  }
  return accepted;
}

/// For a newcomer that finds no descriptor: lets another one go, or this one. False: it has to
/// wait.
bool AcceptLoop::makeRoom() {
  if (makeRoom_ && makeRoom_()) return true;
  spare_.giveUp();
  const bool isTurnedAway = !isOutOfDescriptors(acceptOne().error);
  if (isTurnedAway) tell("no descriptor is left: newcomers are turned away");
  return spare_.renew() && isTurnedAway;
}

bool AcceptLoop::isBudgetSpent() {
  const auto now = std::chrono::steady_clock::now();
  const auto used = processorTimeOfThread();
  if (now < periodEnd_) return used - usedBefore_ > budget;
  periodEnd_ = now + budgetPeriod;
  usedBefore_ = used;
  return false;
}

void AcceptLoop::tell(const std::string& text) {
  const auto now = std::chrono::steady_clock::now();
  if (now < tellAgainAt_) return;
  tellAgainAt_ = now + tellAgainAfter;
  GV_LOG(log::Level::Warning, "gvmessaging.net", "accept", text);
}

void AcceptLoop::resumeAt(std::chrono::steady_clock::time_point time) {
  const std::lock_guard lock(mutex_);
  if (!onAccepted_) return;
  retryTimer_.expires_at(time);
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
                                           AcceptHandler onAccepted, const wire::Limits& limits,
                                           MakeRoom makeRoom) {
  auto acceptor = bindAndListen(host, port);
  const Endpoint bound = acceptor.local_endpoint();
  auto loop = std::make_shared<AcceptLoop>(std::move(acceptor), std::move(onAccepted),
                                           std::move(makeRoom), limits);
  auto listener = std::make_shared<TcpListener>(loop, bound);
  loop->wait();
  return listener;
}

}  // namespace gv::net
