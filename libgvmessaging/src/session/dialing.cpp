#include "src/session/dialing.h"

#include <algorithm>
#include <utility>

#include <gv/eventloop.h>

#include "src/net/resolve.h"

namespace gv {

void Dialing::start() {
  const bool isNumeric = std::all_of(asked_.begin(), asked_.end(), [](const Url& url) {
    return net::numericEndpoint(url.host(), url.port()).has_value();
  });
  try {
    if (isNumeric)
      resolve();
    else
      getEventLoop()->post([self = shared_from_this()] { self->resolve(); });
  } catch (const std::exception& error) {  // in a forked child, or as the process exits
    cancel(error.what());
  }
}

/// Blocks where a host is a name.
void Dialing::resolve() {
  std::vector<Address> addresses;
  try {
    for (const Url& url : asked_)
      for (const std::string& host : net::addressesOf(url.host()))
        addresses.push_back({Url::make(url.protocol(), host, url.port()), url});
  } catch (const std::exception& error) {
    return cancel(std::string("cannot reach the peer: ") + error.what());
  }
  {
    const std::lock_guard lock(mutex_);
    addresses_ = std::move(addresses);
  }
  tryNext();
}

void Dialing::tryNext() {
  std::string causes;
  std::size_t number = 0;
  Url url;
  std::shared_ptr<net::Timer> former;  // goes after the unlock
  {
    const std::lock_guard lock(mutex_);
    if (isSettled_) return;
    former.swap(timer_);
    number = next_;
    if (number < std::min(addresses_.size(), mostAddresses)) {
      url = addresses_[next_++].url;
      tries_.emplace(number, Try());
      timer_ = net::Timer::start(stagger, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->tryNext();
      });
    } else if (tries_.empty()) {
      causes = causes_.empty() ? "it has no endpoint to connect to" : causes_;
    } else {
      return;
    }
  }
  if (!causes.empty()) return cancel("cannot reach the peer: " + causes);
  const auto connector =
      net::Connector::connect(url.host(), url.port(), bound_,
                              [self = shared_from_this(), number](net::ConnectResult result) {
                                self->onStream(number, std::move(result));
                              });
  {
    const std::lock_guard lock(mutex_);
    if (const auto found = tries_.find(number); found != tries_.end()) {
      found->second.connector = connector;
      return;
    }
  }
  connector->cancel();
}

void Dialing::onStream(std::size_t number, net::ConnectResult result) {
  Url asked;
  {
    const std::lock_guard lock(mutex_);
    if (isSettled_) return;
    asked = addresses_[number].asked;
  }
  if (!result.stream) return onFailed(number, result.error);
  ConnectionPointer connection;
  try {
    connection = shakeHands(number, std::move(result.stream), asked);
  } catch (const std::exception& error) {
    return onFailed(number, error.what());
  }
  {
    const std::lock_guard lock(mutex_);
    if (const auto found = tries_.find(number); found != tries_.end()) {
      found->second.connection = connection;
      return;
    }
    if (!isSettled_) return;  // it failed at once
  }
  if (connection && !connection->isOpen()) connection->close("another address answered first");
}

Dialing::ConnectionPointer Dialing::shakeHands(std::size_t number,
                                               std::shared_ptr<net::Stream> stream,
                                               const Url& asked) {
  return starter_(
      std::move(stream), asked,
      [self = shared_from_this(), number](const ConnectionPointer& opened) {
        return self->onOpened(number, opened);
      },
      // Weakly: this one stays as long as the connection.
      [weak = weak_from_this(), number](const std::string& cause) {
        if (const auto self = weak.lock()) self->onFailed(number, cause);
      });
}

bool Dialing::onOpened(std::size_t number, const ConnectionPointer& connection) {
  Tries others;
  if (!settle(others)) return false;
  others.erase(number);
  abandon(others, "another address answered first");
  promise_.setValue(connection);
  return true;
}

void Dialing::onFailed(std::size_t number, const std::string& cause) {
  {
    const std::lock_guard lock(mutex_);
    // Of a connection that won, this is its end; and one that is refused is told of twice.
    if (isSettled_ || tries_.erase(number) == 0) return;
    causes_ += (causes_.empty() ? "" : "; ") + addresses_[number].url.str() + ": " + cause;
  }
  tryNext();
}

void Dialing::cancel(const std::string& cause) {
  Tries tries;
  if (!settle(tries)) return;
  abandon(tries, cause);
  promise_.setError(cause);
}

bool Dialing::settle(Tries& abandoned) {
  std::shared_ptr<net::Timer> timer;  // goes after the unlock
  const std::lock_guard lock(mutex_);
  timer.swap(timer_);
  abandoned.swap(tries_);
  return !std::exchange(isSettled_, true);
}

void Dialing::abandon(const Tries& tries, const std::string& cause) {
  for (const auto& [number, tried] : tries) {
    if (tried.connector) tried.connector->cancel();
    if (const auto connection = tried.connection.lock()) connection->close(cause);
  }
}

}  // namespace gv
