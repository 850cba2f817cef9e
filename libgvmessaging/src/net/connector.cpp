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

#include "src/net/reactor.h"
#include "src/net/resolve.h"
#include "src/net/tcpstream.h"

namespace gv::net {
namespace {

// A bound so long that adding it to the clock would overflow means no bound.
constexpr std::chrono::milliseconds longestBound = std::chrono::hours(24 * 365);

// All but cancel() run in the reactor's thread and use the fields below them only there.
class ConnectAttempt final : public Connector, public std::enable_shared_from_this<ConnectAttempt> {
 public:
  ConnectAttempt(const std::string& host, std::uint16_t port, std::chrono::milliseconds bound,
                 ResultHandler onResult, const wire::Limits& limits)
      : target_(hostAndPort(host, port)),
        endpoint_(numericEndpoint(host, port)),
        limits_(limits),
        bound_(std::min(bound, longestBound)),
        onResult_(std::move(onResult)),
        timer_(Reactor::context()) {}

  void begin();
  void cancel() override;

 private:
  void guardTime();
  std::error_code open();
  void onConnected(std::error_code error);
  void fail(const std::string& cause);
  void settle(ConnectResult result);
  bool isSettled() const { return !onResult_; }

  const std::string target_;
  const std::optional<Endpoint> endpoint_;  // empty where the host is none in numbers
  const wire::Limits limits_;
  const std::chrono::milliseconds bound_;

  ResultHandler onResult_;  // empty once it was called
  asio::steady_timer timer_;
  std::optional<asio::ip::tcp::socket> socket_;
};

void ConnectAttempt::begin() {
  if (isSettled()) return;
  if (!endpoint_) return fail("the host is no address in numbers");
  if (const std::error_code error = open()) return fail(error.message());
  guardTime();
  socket_->async_connect(
      *endpoint_, [self = shared_from_this()](std::error_code error) { self->onConnected(error); });
}

void ConnectAttempt::cancel() {
  Reactor::post([self = shared_from_this()] { self->fail("cancelled"); });
}

void ConnectAttempt::guardTime() {
  timer_.expires_after(bound_);
  timer_.async_wait([self = shared_from_this()](std::error_code error) {
    if (!error) self->fail("no answer within " + std::to_string(self->bound_.count()) + " ms");
  });
}

std::error_code ConnectAttempt::open() {
  std::error_code error;
  socket_.emplace(Reactor::context());
  const int descriptor = openSocket(*endpoint_, error);
  if (descriptor < 0) return error;
  socket_->assign(endpoint_->protocol(), descriptor, error);
  if (error) ::close(descriptor);
  return error;
}

void ConnectAttempt::onConnected(std::error_code error) {
  if (isSettled()) return;
  // With nobody listening, a port of the ephemeral range can connect to itself.
  std::error_code ignored;
  if (!error && socket_->local_endpoint(ignored) == *endpoint_)
    error = asio::error::connection_refused;
  if (error) return fail(error.message());
  const int descriptor = socket_->release(error);  // its bytes are no concern of Asio's
  if (error) return fail(error.message());
  settle({std::make_shared<TcpStream>(descriptor, *endpoint_, limits_), {}});
}

void ConnectAttempt::fail(const std::string& cause) {
  if (!isSettled()) settle({nullptr, "cannot connect to " + target_ + ": " + cause});
}

void ConnectAttempt::settle(ConnectResult result) {
  timer_.cancel();
  socket_.reset();
  const ResultHandler onResult = std::exchange(onResult_, nullptr);
  onResult(std::move(result));
}

}  // namespace

std::shared_ptr<Connector> Connector::connect(const std::string& host, std::uint16_t port,
                                              std::chrono::milliseconds bound,
                                              ResultHandler onResult, const wire::Limits& limits) {
  auto attempt = std::make_shared<ConnectAttempt>(host, port, bound, std::move(onResult), limits);
  Reactor::post([attempt] { attempt->begin(); });
  return attempt;
}

}  // namespace gv::net
