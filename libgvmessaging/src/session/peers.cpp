#include "src/session/peers.h"

#include "src/net/connector.h"

namespace gv {
namespace {

bool isLoopback(const std::string& host) {
  return host.starts_with("127.") || host == "::1";
}

}  // namespace

/// Reaching one peer: its endpoints in turn, until one answers.
struct Peers::Attempt {
  std::vector<Url> endpoints;
  std::chrono::milliseconds bound;
  std::string sessionId;  // who must answer; empty: anybody
  std::size_t next = 0;
  std::string causes;
  Promise<ConnectionPointer> promise{FutureCallbackType::Sync};

  void addCause(const std::string& text) { causes += (causes.empty() ? "" : "; ") + text; }
};

std::shared_ptr<rpc::Acceptor> Peers::listen(const Url& url) {
  return rpc::Acceptor::listen(url.host(), url.port(), own_, host_,
                               makeEvents([](const ConnectionPointer&) {}, {}), limits_);
}

rpc::Connection::Events Peers::makeEvents(std::function<void(const ConnectionPointer&)> opened,
                                          std::function<void(const std::string&)> failed) {
  const std::weak_ptr<Peers> weak = shared_from_this();
  rpc::Connection::Events events;
  events.opened = [weak, opened](const ConnectionPointer& connection) {
    const auto self = weak.lock();
    if (self && self->adopt(connection))
      opened(connection);
    else
      connection->close("the session was closed");
  };
  events.closed = [weak, failed](const ConnectionPointer& connection, const std::string& cause) {
    if (const auto self = weak.lock()) self->forget(connection);
    if (failed) failed(cause);
  };
  return events;
}

bool Peers::adopt(const ConnectionPointer& connection) {
  const std::lock_guard lock(mutex_);
  if (isClosed_) return false;
  open_.emplace(connection->id(), connection);
  bySession_.emplace(connection->peer().sessionId, connection);
  return true;
}

void Peers::forget(const ConnectionPointer& connection) {
  std::vector<Promise<void>> ended;
  {
    const std::lock_guard lock(mutex_);
    if (open_.erase(connection->id()) == 0) return;  // it never opened
    const auto found = bySession_.find(connection->peer().sessionId);
    if (found != bySession_.end() && found->second == connection) {
      bySession_.erase(found);
      // Where the two reached each other at once, the other connection takes over.
      for (const auto& [id, other] : open_)
        if (other->peer().sessionId == connection->peer().sessionId)
          bySession_.emplace(other->peer().sessionId, other);
    }
    if (isClosed_ && open_.empty()) ended.swap(awaitingEnd_);
  }
  onClosed_(connection);
  for (const auto& promise : ended) promise.setValue();
}

Future<Peers::ConnectionPointer> Peers::dial(const Url& url, std::chrono::milliseconds bound) {
  const auto attempt = std::make_shared<Attempt>();
  attempt->endpoints = {url};
  attempt->bound = bound;
  const auto future = attempt->promise.future();
  tryNext(attempt);
  return future;
}

Future<Peers::ConnectionPointer> Peers::reach(const ServiceInfo& info) {
  const auto attempt = std::make_shared<Attempt>();
  attempt->endpoints = endpointsToTry(info);
  attempt->bound = std::chrono::seconds(2);
  attempt->sessionId = info.sessionId();
  const auto future = attempt->promise.future();
  {
    const std::lock_guard lock(mutex_);
    const auto open = bySession_.find(info.sessionId());
    if (open != bySession_.end()) return makeReadyFuture(open->second);
    const auto [running, isNew] = attempts_.emplace(info.sessionId(), future);
    if (!isNew) return running->second;
  }
  const std::weak_ptr<Peers> weak = shared_from_this();
  future.connect(
      [weak, sessionId = info.sessionId()](const Future<ConnectionPointer>&) {
        const auto self = weak.lock();
        if (!self) return;
        Future<ConnectionPointer> ended;
        const std::lock_guard lock(self->mutex_);
        if (const auto found = self->attempts_.extract(sessionId)) ended = found.mapped();
      },
      FutureCallbackType::Sync);
  tryNext(attempt);
  return future;
}

std::vector<Url> Peers::endpointsToTry(const ServiceInfo& info) const {
  const bool isSameMachine = info.machineId() == own_.machineId;
  std::vector<Url> loopback;
  std::vector<Url> others;
  for (const Url& url : info.endpoints())
    (isLoopback(url.host()) ? loopback : others).push_back(url);
  // The loopback address of another machine would lead back to this one.
  if (!isSameMachine) return others;
  loopback.insert(loopback.end(), others.begin(), others.end());
  return loopback;
}

void Peers::tryNext(const std::shared_ptr<Attempt>& attempt) {
  if (attempt->next == attempt->endpoints.size()) {
    const std::string causes =
        attempt->causes.empty() ? "it has no endpoint to connect to" : attempt->causes;
    return attempt->promise.setError("cannot reach the peer: " + causes);
  }
  const Url url = attempt->endpoints[attempt->next++];
  const std::weak_ptr<Peers> weak = shared_from_this();
  const auto failed = [weak, attempt, url](const std::string& cause) {
    if (!attempt->promise.future().isRunning()) return;
    attempt->addCause(url.str() + ": " + cause);
    if (const auto self = weak.lock())
      self->tryNext(attempt);
    else
      attempt->promise.setError("the session was closed");
  };
  const auto opened = [attempt](const ConnectionPointer& connection) {
    if (!attempt->sessionId.empty() && connection->peer().sessionId != attempt->sessionId)
      return connection->close("another session answered");
    attempt->promise.setValue(connection);
  };
  net::Connector::connect(
      url.host(), url.port(), attempt->bound,
      [weak, failed, opened](net::ConnectResult result) {
        const auto self = weak.lock();
        if (!self || !result.stream) return failed(self ? result.error : "the session was closed");
        rpc::Connection::start(std::move(result.stream), rpc::Role::Client, self->own_, self->host_,
                               self->makeEvents(opened, failed), self->limits_);
      },
      limits_);
}

Future<void> Peers::close(const std::string& cause) {
  Promise<void> promise(FutureCallbackType::Async);
  std::map<std::uint64_t, ConnectionPointer> open;
  {
    const std::lock_guard lock(mutex_);
    isClosed_ = true;
    open = open_;
    awaitingEnd_.push_back(promise);
  }
  for (const auto& [id, connection] : open) connection->close(cause);
  std::vector<Promise<void>> ended;
  {
    const std::lock_guard lock(mutex_);
    if (open_.empty()) ended.swap(awaitingEnd_);
  }
  for (const auto& waiting : ended) waiting.setValue();
  return promise.future();
}

}  // namespace gv
