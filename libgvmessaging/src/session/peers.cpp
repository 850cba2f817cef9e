#include "src/session/peers.h"

#include <algorithm>
#include <atomic>

#include "src/net/connector.h"

namespace gv {
namespace {

bool isLoopback(const std::string& host) {
  const bool isNumeric = host.find_first_not_of("0123456789.") == std::string::npos;
  return host == "::1" || (isNumeric && host.starts_with("127."));
}

}  // namespace

/// Reaching one peer: its endpoints in turn, until one answers. Its steps follow each other in the
/// network's thread; closing the session may end it from any other.
struct Peers::Attempt {
  std::vector<Url> endpoints;
  std::chrono::milliseconds bound{};  // of each endpoint, for connecting and for the handshake
  std::string sessionId;              // who must answer; empty: anybody
  std::size_t next = 0;
  std::string causes;
  const Promise<ConnectionPointer> promise;
  std::atomic<bool> isSettled{false};  // who sets it settles the promise

  void addCause(const std::string& text) { causes += (causes.empty() ? "" : "; ") + text; }
  void fail(const std::string& text) {
    if (!isSettled.exchange(true)) promise.setError(text);
  }
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
      connection->close("the session was closed, or reached itself");
  };
  events.closed = [weak, failed](const ConnectionPointer& connection, const std::string& cause) {
    if (const auto self = weak.lock()) self->forget(connection);
    if (failed) failed(cause);
  };
  return events;
}

bool Peers::adopt(const ConnectionPointer& connection) {
  if (connection->peer().sessionId == own_.sessionId) return false;  // it reached itself
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
  return begin(attempt);
}

Future<Peers::ConnectionPointer> Peers::reach(const ServiceInfo& info) {
  if (info.sessionId().empty())
    return makeFailedFuture<ConnectionPointer>("service '" + info.name() + "' names no session");
  const auto attempt = std::make_shared<Attempt>();
  attempt->endpoints = endpointsToTry(info);
  attempt->bound = std::chrono::seconds(2);
  attempt->sessionId = info.sessionId();
  const auto future = attempt->promise.future();
  {
    const std::lock_guard lock(mutex_);
    if (const ConnectionPointer known = knownLocked(info)) return makeReadyFuture(known);
    const auto [running, isNew] = reaching_.emplace(info.sessionId(), future);
    if (!isNew) return running->second;
  }
  const std::weak_ptr<Peers> weak = shared_from_this();
  future.connect(
      [weak, sessionId = info.sessionId()](const Future<ConnectionPointer>&) {
        const auto self = weak.lock();
        if (!self) return;
        Future<ConnectionPointer> ended;  // dies after the unlock
        const std::lock_guard lock(self->mutex_);
        if (const auto found = self->reaching_.extract(sessionId)) ended = found.mapped();
      },
      FutureCallbackType::Sync);
  return begin(attempt);
}

/// A peer that came to us is who it says where it came from an address that its services announce.
Peers::ConnectionPointer Peers::knownLocked(const ServiceInfo& info) const {
  const auto found = bySession_.find(info.sessionId());
  if (found == bySession_.end()) return nullptr;
  const std::string& address = found->second->peerAddress();
  const bool isKnown = found->second->role() == rpc::Role::Client || isLoopback(address) ||
                       std::any_of(info.endpoints().begin(), info.endpoints().end(),
                                   [&address](const Url& url) { return url.host() == address; });
  return isKnown ? found->second : nullptr;
}

Future<Peers::ConnectionPointer> Peers::begin(const std::shared_ptr<Attempt>& attempt) {
  bool isClosed = false;
  {
    const std::lock_guard lock(mutex_);
    isClosed = isClosed_;
    std::erase_if(attempts_, [](const auto& weak) { return weak.expired(); });
    attempts_.push_back(attempt);
  }
  if (isClosed)
    attempt->fail("the session was closed");
  else
    tryNext(attempt);
  return attempt->promise.future();
}

std::vector<Url> Peers::endpointsToTry(const ServiceInfo& info) const {
  const bool isSameMachine = info.machineId() == own_.machineId;
  std::vector<Url> loopback;
  std::vector<Url> others;
  for (const Url& url : info.endpoints())
    (isLoopback(url.host()) ? loopback : others).push_back(url);
  // The loopback address of another machine would lead back to this one.
  if (!isSameMachine) loopback.clear();
  loopback.insert(loopback.end(), others.begin(), others.end());
  constexpr std::size_t most = 8;  // each may take its whole time
  if (loopback.size() > most) loopback.resize(most);
  return loopback;
}

void Peers::tryNext(const std::shared_ptr<Attempt>& attempt) {
  if (attempt->next == attempt->endpoints.size())
    return attempt->fail("cannot reach the peer: " + (attempt->causes.empty()
                                                          ? "it has no endpoint to connect to"
                                                          : attempt->causes));
  const Url url = attempt->endpoints[attempt->next++];
  const std::weak_ptr<Peers> weak = shared_from_this();
  const auto failed = [weak, attempt, url](const std::string& cause) {
    if (attempt->isSettled) return;
    attempt->addCause(url.str() + ": " + cause);
    if (const auto self = weak.lock())
      self->tryNext(attempt);
    else
      attempt->fail("the session was closed");
  };
  const auto opened = [attempt](const ConnectionPointer& connection) {
    if (!attempt->sessionId.empty() && connection->peer().sessionId != attempt->sessionId)
      return connection->close("another session answered");
    if (attempt->isSettled.exchange(true)) return connection->close("the session was closed");
    attempt->promise.setValue(connection);
  };
  const auto connected = [weak, attempt, failed, opened](net::ConnectResult result) {
    const auto self = weak.lock();
    if (!self || !result.stream) return failed(self ? result.error : "the session was closed");
    wire::Limits limits = self->limits_;
    limits.handshakeTime = std::min(limits.handshakeTime, attempt->bound);
    rpc::Connection::start(std::move(result.stream), rpc::Role::Client, self->own_, self->host_,
                           self->makeEvents(opened, failed), limits);
  };
  try {
    net::Connector::connect(url.host(), url.port(), attempt->bound, connected, limits_);
  } catch (const std::exception& error) {  // in a forked child, or as the process exits
    attempt->fail(error.what());
  }
}

Future<void> Peers::close(const std::string& cause) {
  const Promise<void> promise;
  // Until then somebody must be there to settle it.
  promise.future().connect([self = shared_from_this()](const Future<void>&) {},
                           FutureCallbackType::Sync);
  std::map<std::uint64_t, ConnectionPointer> open;
  std::vector<std::weak_ptr<Attempt>> attempts;
  {
    const std::lock_guard lock(mutex_);
    isClosed_ = true;
    open = open_;
    attempts.swap(attempts_);
    awaitingEnd_.push_back(promise);
  }
  for (const auto& weak : attempts)
    if (const auto attempt = weak.lock()) attempt->fail(cause);
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
