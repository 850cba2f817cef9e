#include "src/net/connector.h"

#include <unistd.h>

#include <algorithm>
#include <asio/error.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include <gv/eventloop.h>

#include "src/net/reactor.h"
#include "src/net/resolve.h"
#include "src/net/tcpstream.h"

namespace gv::net {
namespace {

using Clock = std::chrono::steady_clock;

// A bound so long that adding it to the clock would overflow means no bound.
constexpr std::chrono::milliseconds longestBound = std::chrono::hours(24 * 365);

// All but begin() and cancel() run in the reactor's thread and use the fields below them only
// there.
class ConnectAttempt final : public Connector, public std::enable_shared_from_this<ConnectAttempt> {
 public:
  ConnectAttempt(const std::string& host, std::uint16_t port, std::chrono::milliseconds bound,
                 ResultHandler onResult, const wire::Limits& limits)
      : target_(hostAndPort(host, port)),
        limits_(limits),
        bound_(std::min(bound, longestBound)),
        deadline_(Clock::now() + bound_),
        onResult_(std::move(onResult)),
        totalTimer_(Reactor::context()),
        addressTimer_(Reactor::context()) {}

  void begin(const std::string& host, std::uint16_t port);
  void cancel() override;

 private:
  void guardTime();
  void tryAll(std::vector<Endpoint> endpoints, std::error_code error);
  void tryNext();
  void onConnected(std::error_code error);
  void fail(const std::string& cause);
  void settle(ConnectResult result);
  bool isSettled() const { return !onResult_; }

  const std::string target_;
  const wire::Limits limits_;
  const std::chrono::milliseconds bound_;
  const Clock::time_point deadline_;

  ResultHandler onResult_;  // empty once it was called
  asio::steady_timer totalTimer_;
  asio::steady_timer addressTimer_;
  std::optional<asio::ip::tcp::socket> socket_;
  std::vector<Endpoint> endpoints_;
  std::size_t tried_ = 0;  // of endpoints_, the one under way included
  std::error_code lastError_;
};

void ConnectAttempt::begin(const std::string& host, std::uint16_t port) {
  Reactor::post([self = shared_from_this()] { self->guardTime(); });
  if (const auto endpoint = numericEndpoint(host, port)) {
    Reactor::post([self = shared_from_this(), endpoint] { self->tryAll({*endpoint}, {}); });
    return;
  }
  getEventLoop()->post([self = shared_from_this(), host, port] {
    std::error_code error;
    auto endpoints = resolve(host, port, error);
    Reactor::post(
        [self, endpoints = std::move(endpoints), error] { self->tryAll(endpoints, error); });
  });
}

void ConnectAttempt::cancel() {
  Reactor::post([self = shared_from_this()] { self->fail("cancelled"); });
}

void ConnectAttempt::guardTime() {
  totalTimer_.expires_at(deadline_);
  totalTimer_.async_wait([self = shared_from_this()](std::error_code error) {
    if (!error) self->fail("no answer within " + std::to_string(self->bound_.count()) + " ms");
  });
}

void ConnectAttempt::tryAll(std::vector<Endpoint> endpoints, std::error_code error) {
  lastError_ = error;
  endpoints_ = std::move(endpoints);
  tryNext();
}

// Each address gets its share of the time that is left, so that a silent first one leaves some to
// the others.
void ConnectAttempt::tryNext() {
  if (isSettled()) return;
  if (tried_ == endpoints_.size()) return fail(lastError_.message());
  const auto share = (deadline_ - Clock::now()) / static_cast<int>(endpoints_.size() - tried_);
  const Endpoint& endpoint = endpoints_[tried_++];

  socket_.emplace(Reactor::context());
  const int descriptor = openSocket(endpoint, lastError_);
  if (descriptor < 0) return tryNext();
  socket_->assign(endpoint.protocol(), descriptor, lastError_);
  if (lastError_) {
    ::close(descriptor);
    return tryNext();
  }

  addressTimer_.expires_after(share);
  addressTimer_.async_wait([self = shared_from_this(), number = tried_](std::error_code error) {
    if (!error && number == self->tried_) self->onConnected(asio::error::timed_out);
  });
  socket_->async_connect(endpoint,
                         [self = shared_from_this(), number = tried_](std::error_code error) {
                           if (number == self->tried_) self->onConnected(error);
                         });
}

void ConnectAttempt::onConnected(std::error_code error) {
  if (isSettled()) return;
  addressTimer_.cancel();
  const Endpoint& peer = endpoints_[tried_ - 1];
  // With nobody listening, a port of the ephemeral range can connect to itself.
  std::error_code ignored;
  if (!error && socket_->local_endpoint(ignored) == peer) error = asio::error::connection_refused;
  if (!error) {
    // Its bytes are no concern of Asio's.
    const int descriptor = socket_->release(error);
    if (!error) return settle({std::make_shared<TcpStream>(descriptor, peer, limits_), {}});
  }
  lastError_ = error;
  tryNext();
}

void ConnectAttempt::fail(const std::string& cause) {
  if (!isSettled()) settle({nullptr, "cannot connect to " + target_ + ": " + cause});
}

void ConnectAttempt::settle(ConnectResult result) {
  totalTimer_.cancel();
  addressTimer_.cancel();
  socket_.reset();
  const ResultHandler onResult = std::exchange(onResult_, nullptr);
  onResult(std::move(result));
}

}  // namespace

std::shared_ptr<Connector> Connector::connect(const std::string& host, std::uint16_t port,
                                              std::chrono::milliseconds bound,
                                              ResultHandler onResult, const wire::Limits& limits) {
  auto attempt = std::make_shared<ConnectAttempt>(host, port, bound, std::move(onResult), limits);
  attempt->begin(host, port);
  return attempt;
}

}  // namespace gv::net
