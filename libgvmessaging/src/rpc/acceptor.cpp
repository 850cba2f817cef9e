#include "src/rpc/acceptor.h"

#include <exception>
#include <utility>

#include <gv/log.h>

#include "src/net/nativesocket.h"
#include "src/net/neighbours.h"
#include "src/net/tlsstream.h"
#include "src/rpc/peerlog.h"

namespace gv::rpc {
namespace {

constexpr const char* category = "gvmessaging.connection";

/// The peer is a stream or a connection.
template <class Peer>
void logFailure(const Peer& peer, const std::string& cause) {
  logOfPeer(log::Level::Info, category, "handshake", peer.peerAddress(),
            [&] { return "the handshake with " + peer.peerName() + " failed: " + cause; });
}

/// Each: where memory runs out for one, the others are carried out all the same.
void carryOut(const std::vector<std::function<void()>>& actions) {
  for (const auto& action : actions) {
    try {
      action();
    } catch (const std::exception& error) {
      GV_LOG(log::Level::Error, category, "accept", error.what());
    }
  }
}

}  // namespace

std::shared_ptr<Acceptor> Acceptor::listen(const std::string& host, std::uint16_t port,
                                           const Identity& own, std::weak_ptr<ServiceHost> services,
                                           Connection::Events events, const wire::Limits& limits,
                                           const Door& door) {
  std::shared_ptr<Acceptor> acceptor(
      new Acceptor(own, std::move(services), std::move(events), limits, door));
  const std::weak_ptr<Acceptor> weak = acceptor;
  static_cast<void>(net::distanceOf("0.0.0.0"));  // while there still are descriptors to ask with
  acceptor->listener_ = net::Listener::listen(
      host, port,
      [weak](std::shared_ptr<net::Stream> stream) {
        if (const auto self = weak.lock()) self->onAccepted(std::move(stream));
      },
      limits,
      [weak] {
        const auto self = weak.lock();
        return self && self->makeRoom();
      });
  return acceptor;
}

Acceptor::Acceptor(const Identity& own, std::weak_ptr<ServiceHost> host, Connection::Events events,
                   const wire::Limits& limits, const Door& door)
    : own_(own),
      host_(std::move(host)),
      events_(std::move(events)),
      limits_(limits),
      door_(door),
      admission_(limits, net::mostDescriptors()) {}

void Acceptor::close() {
  listener_->close();
  std::map<Id, std::shared_ptr<net::Stream>> parked;
  std::map<Id, std::weak_ptr<Connection>> handshaking;
  std::shared_ptr<net::Timer> look;
  {
    const std::lock_guard lock(mutex_);
    isClosed_ = true;
    parked.swap(parked_);
    handshaking.swap(handshaking_);
    look.swap(look_);
  }
  for (const auto& [id, weak] : handshaking)
    if (const auto connection = weak.lock(); connection && !connection->isOpen())
      connection->close("the listener was closed");
}

bool Acceptor::mayComeIn(const net::Stream& stream) const {
  if (!door_.isLinkOnly || net::distanceOf(stream.peerAddress()) != net::Distance::Routed)
    return true;
  logOfPeer(log::Level::Warning, category, "accept", stream.peerAddress(), [&stream] {
    return "refused " + stream.peerName() +
           ", which is beyond a router: GV_LISTEN_SCOPE=any or a key would let it in";
  });
  return false;
}

void Acceptor::onAccepted(std::shared_ptr<net::Stream> stream) {
  if (!mayComeIn(*stream)) return;
  std::vector<std::function<void()>> later;
  {
    const std::lock_guard lock(mutex_);
    if (isClosed_) return;
    const Id id = ++lastId_;
    const std::string address = stream->peerAddress();
    parked_.emplace(id, std::move(stream));
    carryOutLocked(admission_.arrived(id, address, std::chrono::steady_clock::now()), later);
  }
  carryOut(later);
}

/// Whether the handshake was still under way, as far as this side is concerned.
bool Acceptor::onFinished(Id id) {
  std::vector<std::function<void()>> later;
  {
    const std::lock_guard lock(mutex_);
    if (handshaking_.erase(id) == 0) return false;
    carryOutLocked(admission_.finished(id, std::chrono::steady_clock::now()), later);
  }
  carryOut(later);
  return true;
}

bool Acceptor::makeRoom() {
  std::vector<std::function<void()>> later;
  {
    const std::lock_guard lock(mutex_);
    if (isClosed_) return false;
    carryOutLocked(admission_.outOfDescriptors(std::chrono::steady_clock::now()), later);
  }
  carryOut(later);
  return !later.empty();
}

void Acceptor::carryOutLocked(const net::Admission::Decision& decision,
                              std::vector<std::function<void()>>& later) {
  for (const Id id : decision.close) {
    if (const auto parked = parked_.extract(id)) {
      // Closed with the action: closing it by name would do so a moment later.
      later.emplace_back(
          [stream = std::move(parked.mapped())] { logFailure(*stream, "too many connections"); });
    } else if (const auto begun = handshaking_.extract(id)) {
      later.emplace_back([weak = begun.mapped()] {
        const auto connection = weak.lock();
        if (!connection) return;
        const std::string cause = "the handshake was too slow while others waited";
        logFailure(*connection, cause);
        connection->abort(cause);
      });
    }
  }
  for (const Id id : decision.start) {
    if (auto parked = parked_.extract(id)) {
      handshaking_.emplace(id, std::weak_ptr<Connection>());
      later.emplace_back([self = shared_from_this(), id, stream = std::move(parked.mapped())] {
        self->begin(id, stream);
      });
    }
  }
  lookAgainLocked();
}

void Acceptor::begin(Id id, const std::shared_ptr<net::Stream>& stream) {
  const std::weak_ptr<Acceptor> weak = shared_from_this();
  const auto finished = [weak, id] {
    const auto self = weak.lock();
    return self && self->onFinished(id);
  };
  Connection::Events events;
  events.opened = [finished, next = events_.opened](const std::shared_ptr<Connection>& opened) {
    finished();
    next(opened);
  };
  events.closed = [finished, next = events_.closed](const std::shared_ptr<Connection>& closed,
                                                    const std::string& cause) {
    if (finished()) logFailure(*closed, cause);
    next(closed, cause);
  };
  std::shared_ptr<Connection> connection;
  try {
    connection =
        Connection::start(door_.tls ? net::TlsStream::over(stream, *door_.tls, {}) : stream,
                          Role::Server, own_, host_, std::move(events), limits_);
  } catch (const std::exception& error) {  // no memory, or the process exits
    if (finished()) logFailure(*stream, error.what());
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    const auto found = handshaking_.find(id);
    if (found != handshaking_.end()) {
      found->second = connection;
      return;
    }
  }
  if (!connection->isOpen())
    connection->close("its place was given away, or the listener was closed");
}

void Acceptor::lookAgainLocked() {
  const auto when = admission_.nextLook();
  if (when == lookAt_) return;
  lookAt_.reset();
  look_.reset();
  if (!when) return;
  const auto delay = std::chrono::duration_cast<std::chrono::milliseconds>(
      *when - std::chrono::steady_clock::now());
  const auto look = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->onTime();
  };
  try {
    look_ = net::Timer::start(std::max(delay, std::chrono::milliseconds(1)), look);
    lookAt_ = when;
  } catch (const std::exception&) {
    // The process exits; or there is no memory, and the next newcomer sees to it.
  }
}

void Acceptor::onTime() {
  std::vector<std::function<void()>> later;
  {
    const std::lock_guard lock(mutex_);
    if (isClosed_) return;
    lookAt_.reset();
    carryOutLocked(admission_.timePassed(std::chrono::steady_clock::now()), later);
  }
  carryOut(later);
}

}  // namespace gv::rpc
