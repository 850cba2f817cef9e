#include "src/session/peers.h"

#include <algorithm>
#include <utility>

#include "src/directory/endpoints.h"
#include "src/net/tlsstream.h"

namespace gv {

std::shared_ptr<rpc::Acceptor> Peers::listen(const Url& url) {
  const auto keys = security::keys();
  const rpc::Door door = security::doorOf(url, keys.get());
  const auto acceptor = rpc::Acceptor::listen(url.host(), url.port(), rpc::Identity(own_, keys),
                                              host_, makeEvents("", {}, {}), limits_, door);
  {
    const std::lock_guard lock(mutex_);
    if (demands_.protocol.empty()) demands_ = {url.protocol(), keys, nullptr};
  }
  security::warnIfOpen(acceptor->boundAddress(), door, keys.get());
  return acceptor;
}

rpc::Connection::Events Peers::makeEvents(const std::string& expectedSession,
                                          Dialing::Opened opened, Dialing::Failed failed) {
  const std::weak_ptr<Peers> weak = shared_from_this();
  rpc::Connection::Events events;
  events.opened = [weak, expectedSession, opened, failed](const ConnectionPointer& connection) {
    const auto refuse = [&](const std::string& cause) {
      // Now, while `opened` holds who dials.
      if (failed) failed(cause);
      connection->close(cause);
    };
    // Before it counts as a connection of the session that it claims to be.
    if (!expectedSession.empty() && connection->peer().sessionId != expectedSession)
      return refuse("another session answered");
    const auto self = weak.lock();
    if (!self || !self->adopt(connection))
      return refuse("the session was closed, or reached itself");
    if (opened && !opened(connection)) connection->close("another address answered first");
  };
  events.closed = [weak, failed](const ConnectionPointer& connection, const std::string& cause) {
    if (const auto self = weak.lock()) self->forget(connection);
    if (failed) failed(cause);
  };
  return events;
}

bool Peers::adopt(const ConnectionPointer& connection) {
  const std::string& session = connection->peer().sessionId;
  if (session == own_.sessionId) return false;  // it reached itself
  const std::lock_guard lock(mutex_);
  if (isClosed_) return false;
  open_.emplace(connection->id(), connection);
  bySession_.emplace(session, connection);
  return true;
}

void Peers::forget(const ConnectionPointer& connection) {
  std::vector<Promise<void>> ended;
  {
    const std::lock_guard lock(mutex_);
    if (open_.erase(connection->id()) == 0) return;  // it never opened
    const auto [first, last] = bySession_.equal_range(connection->peer().sessionId);
    bySession_.erase(std::find_if(
        first, last, [&connection](const auto& entry) { return entry.second == connection; }));
    if (isClosed_ && open_.empty()) ended.swap(awaitingEnd_);
  }
  onClosed_(connection);
  for (const auto& promise : ended) promise.setValue();
}

std::vector<Peers::ConnectionPointer> Peers::open() const {
  const std::lock_guard lock(mutex_);
  std::vector<ConnectionPointer> connections;
  for (const auto& [id, connection] : open_) connections.push_back(connection);
  return connections;
}

Future<Peers::ConnectionPointer> Peers::dial(const Url& url, std::chrono::milliseconds bound) {
  try {
    Demands demands{url.protocol(), security::keys(), nullptr};
    if (url.protocol() == "tcps") demands.tls = security::clientTls();
    const std::lock_guard lock(mutex_);
    std::swap(demands_, demands);
  } catch (const std::exception& error) {
    return makeFailedFuture<ConnectionPointer>(error.what());
  }
  return begin(makeDialing({url}, bound, ""));
}

Future<Peers::ConnectionPointer> Peers::reach(const ServiceInfo& info) {
  constexpr std::chrono::seconds boundOfEach{2};
  if (info.sessionId().empty())
    return makeFailedFuture<ConnectionPointer>("service '" + info.name() + "' names no session");
  std::shared_ptr<Dialing> dialing;
  Future<ConnectionPointer> future, former;  // die after the unlock
  {
    const std::lock_guard lock(mutex_);
    if (const ConnectionPointer known = knownLocked(info)) return makeReadyFuture(known);
    auto& running = reaching_[info.sessionId()];
    // One that has ended may still stand here: who waited for it is woken before it is removed.
    if (running.isRunning()) return running;
    dialing = makeDialing(endpointsToTryLocked(info), boundOfEach, info.sessionId());
    future = dialing->future();
    former = std::exchange(running, future);
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
  return begin(dialing);
}

/// A peer that came to us is who it says where it came from an address that its services announce.
bool Peers::isKnown(const ConnectionPointer& connection, const ServiceInfo& info) const {
  if (connection->role() == rpc::Role::Client) return true;
  const std::string& address = connection->peerAddress();
  return directory::isLoopback(address) ||
         std::any_of(info.endpoints().begin(), info.endpoints().end(),
                     [&address](const Url& url) { return url.host() == address; });
}

Peers::ConnectionPointer Peers::knownLocked(const ServiceInfo& info) const {
  ConnectionPointer preferred;
  const auto [first, last] = bySession_.equal_range(info.sessionId());
  for (auto entry = first; entry != last; ++entry) {
    const ConnectionPointer& connection = entry->second;
    if (!connection->isOpen() || !isKnown(connection, info)) continue;
    // Both ends know who began it, and the ids of both.
    const bool isPreferred = (connection->role() == rpc::Role::Client) ==
                             (own_.sessionId < connection->peer().sessionId);
    if (!preferred || isPreferred) preferred = connection;
    if (isPreferred) break;
  }
  return preferred;
}

std::shared_ptr<Dialing> Peers::makeDialing(std::vector<Url> urls, std::chrono::milliseconds bound,
                                            const std::string& expectedSession) {
  const std::weak_ptr<Peers> weak = shared_from_this();
  return std::make_shared<Dialing>(
      std::move(urls), bound,
      [weak, bound, expectedSession](std::shared_ptr<net::Stream> stream, const Url& asked,
                                     Dialing::Opened opened,
                                     const Dialing::Failed& failed) -> ConnectionPointer {
        if (const auto self = weak.lock())
          return self->shakeHands(std::move(stream), asked,
                                  self->makeEvents(expectedSession, std::move(opened), failed),
                                  bound);
        failed("the session was closed");
        return nullptr;
      });
}

Peers::ConnectionPointer Peers::shakeHands(std::shared_ptr<net::Stream> stream, const Url& asked,
                                           rpc::Connection::Events events,
                                           std::chrono::milliseconds bound) const {
  Demands demands;
  {
    const std::lock_guard lock(mutex_);
    demands = demands_;
  }
  if (asked.protocol() == "tcps") {
    const auto tls = demands.tls ? demands.tls : security::clientTls();
    stream = net::TlsStream::over(std::move(stream), *tls, asked.host());
  }
  wire::Limits limits = limits_;
  limits.handshakeTime = std::min(limits.handshakeTime, bound);
  return rpc::Connection::start(std::move(stream), rpc::Role::Client,
                                rpc::Identity(own_, demands.keys), host_, std::move(events),
                                limits);
}

Future<Peers::ConnectionPointer> Peers::begin(const std::shared_ptr<Dialing>& dialing) {
  bool isClosed = false;
  {
    const std::lock_guard lock(mutex_);
    isClosed = isClosed_;
    std::erase_if(dialings_, [](const auto& weak) { return weak.expired(); });
    dialings_.push_back(dialing);
  }
  if (isClosed)
    dialing->cancel("the session was closed");
  else
    dialing->start();
  return dialing->future();
}

std::vector<Url> Peers::endpointsToTryLocked(const ServiceInfo& info) const {
  const std::string& protocol = demands_.protocol;
  const auto isLoopback = [](const Url& url) { return directory::isLoopback(url.host()); };
  std::vector<Url> urls = info.endpoints();
  // Who reached the directory by TLS is not led elsewhere without it.
  std::erase_if(urls, [&protocol](const Url& url) { return url.protocol() != protocol; });
  // The loopback address of another machine would lead back to this one.
  if (info.machineId() != own_.machineId) std::erase_if(urls, isLoopback);
  std::stable_partition(urls.begin(), urls.end(), isLoopback);
  return urls;
}

Future<void> Peers::close(const std::string& cause) {
  const Promise<void> promise;
  // Until then somebody must be there to settle it.
  promise.future().connect([self = shared_from_this()](const Future<void>&) {},
                           FutureCallbackType::Sync);
  std::map<std::uint64_t, ConnectionPointer> open;
  std::vector<std::weak_ptr<Dialing>> dialings;
  {
    const std::lock_guard lock(mutex_);
    isClosed_ = true;
    open = open_;
    dialings.swap(dialings_);
    awaitingEnd_.push_back(promise);
  }
  for (const auto& weak : dialings)
    if (const auto dialing = weak.lock()) dialing->cancel(cause);
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
