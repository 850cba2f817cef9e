#include "src/rpc/acceptor.h"

#include <gv/log.h>

#include "src/net/neighbours.h"
#include "src/net/tlsstream.h"

namespace gv::rpc {
namespace {

constexpr const char* category = "gvmessaging.connection";

}  // namespace

std::shared_ptr<Acceptor> Acceptor::listen(const std::string& host, std::uint16_t port,
                                           const Identity& own, std::weak_ptr<ServiceHost> services,
                                           Connection::Events events, const wire::Limits& limits,
                                           const Door& door) {
  std::shared_ptr<Acceptor> acceptor(
      new Acceptor(own, std::move(services), std::move(events), limits, door));
  const std::weak_ptr<Acceptor> weak = acceptor;
  acceptor->listener_ = net::Listener::listen(
      host, port,
      [weak](std::shared_ptr<net::Stream> stream) {
        if (const auto self = weak.lock()) self->onAccepted(std::move(stream));
      },
      limits);
  return acceptor;
}

Acceptor::Acceptor(const Identity& own, std::weak_ptr<ServiceHost> host, Connection::Events events,
                   const wire::Limits& limits, const Door& door)
    : own_(own),
      host_(std::move(host)),
      events_(std::move(events)),
      limits_(limits),
      door_(door),
      admission_(limits) {}

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
  GV_LOG(log::Level::Warning, category, "accept",
         "refused " + stream.peerName() +
             ", which is beyond a router: GV_LISTEN_SCOPE=any or a key would let it in");
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
  for (const auto& action : later) action();
}

void Acceptor::onFinished(Id id) {
  std::vector<std::function<void()>> later;
  {
    const std::lock_guard lock(mutex_);
    handshaking_.erase(id);
    if (isClosed_) return;
    carryOutLocked(admission_.finished(id, std::chrono::steady_clock::now()), later);
  }
  for (const auto& action : later) action();
}

void Acceptor::carryOutLocked(const net::Admission::Decision& decision,
                              std::vector<std::function<void()>>& later) {
  for (const Id id : decision.close) {
    if (const auto parked = parked_.extract(id)) {
      later.emplace_back([stream = parked.mapped()] { stream->close("too many connections"); });
    } else if (const auto begun = handshaking_.extract(id)) {
      later.emplace_back([weak = begun.mapped()] {
        if (const auto connection = weak.lock())
          connection->close("the handshake was too slow while others waited");
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

void Acceptor::begin(Id id, std::shared_ptr<net::Stream> stream) {
  const std::weak_ptr<Acceptor> weak = shared_from_this();
  const auto finished = [weak, id] {
    if (const auto self = weak.lock()) self->onFinished(id);
  };
  Connection::Events events;
  events.opened = [finished, next = events_.opened](const std::shared_ptr<Connection>& opened) {
    finished();
    next(opened);
  };
  events.closed = [finished, next = events_.closed](const std::shared_ptr<Connection>& closed,
                                                    const std::string& cause) {
    finished();
    next(closed, cause);
  };
  if (door_.tls) stream = net::TlsStream::over(std::move(stream), *door_.tls, {});
  const auto connection =
      Connection::start(std::move(stream), Role::Server, own_, host_, std::move(events), limits_);
  {
    const std::lock_guard lock(mutex_);
    const auto found = handshaking_.find(id);
    if (found != handshaking_.end()) found->second = connection;
    if (!isClosed_) return;
  }
  if (!connection->isOpen()) connection->close("the listener was closed");
}

void Acceptor::lookAgainLocked() {
  const auto when = admission_.nextLook();
  if (!when) {
    look_.reset();
    return;
  }
  const auto delay = std::chrono::duration_cast<std::chrono::milliseconds>(
      *when - std::chrono::steady_clock::now());
  const std::weak_ptr<Acceptor> weak = shared_from_this();
  look_ = net::Timer::start(std::max(delay, std::chrono::milliseconds(1)), [weak] {
    const auto self = weak.lock();
    if (!self) return;
    std::vector<std::function<void()>> later;
    {
      const std::lock_guard lock(self->mutex_);
      if (self->isClosed_) return;
      self->carryOutLocked(self->admission_.timePassed(std::chrono::steady_clock::now()), later);
    }
    for (const auto& action : later) action();
  });
}

}  // namespace gv::rpc
