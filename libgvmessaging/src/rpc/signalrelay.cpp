#include "src/rpc/signalrelay.h"

#include <stdexcept>
#include <string>

#include <gv/eventloop.h>
#include <gv/log.h>

#include "src/rpc/connection.h"

namespace gv::rpc {
namespace {

/// On the event loop: with the handler other handlers' lists may go, which hold foreign code.
void disconnectLater(const WeakObject<Empty>& weak, SignalLink link) {
  if (link == 0) return;
  try {
    getEventLoop()->post([weak, link] {
      if (const Object<Empty> object = weak.lock()) object.disconnect(link);
    });
  } catch (const std::exception&) {
    // In a forked child nobody emits.
  }
}

}  // namespace

void SignalRelay::reserve(std::uint64_t subscription, const Object<Empty>& object) {
  const std::lock_guard lock(mutex_);
  if (isEnded_) throw std::runtime_error("the connection has ended");
  if (subscriptions_.size() >= limit_)
    throw std::runtime_error("one peer cannot listen to more than " + std::to_string(limit_) +
                             " signals");
  if (!subscriptions_.emplace(subscription, Subscription{object}).second)
    throw std::runtime_error("there is a subscription of that number already");
}

bool SignalRelay::keep(std::uint64_t subscription, SignalLink link) {
  const std::lock_guard lock(mutex_);
  const auto found = subscriptions_.find(subscription);
  if (found == subscriptions_.end() || found->second.link != 0) return false;  // or of that number
  found->second.link = link;
  return true;
}

Future<AnyReference> SignalRelay::subscribe(const std::shared_ptr<Connection>& connection,
                                            const ObjectAddress& address,
                                            const Object<Empty>& object, unsigned signal,
                                            std::uint64_t subscription) {
  const auto& signals = object.metaObject().signalMap();
  const auto described = signals.find(signal);
  if (described == signals.end())
    throw std::runtime_error("the object has no signal with id " + std::to_string(signal));
  reserve(subscription, object);
  const auto send = [weak = std::weak_ptr<Connection>(connection), address,
                     source = described->second, subscription](const AnyArguments& emitted) {
    const auto peer = weak.lock();
    if (peer) peer->server().sendEvent(address, source, subscription, emitted.args);
  };
  Future<SignalLink> connecting;
  try {
    const GenericObject& generic = *object.share();
    connecting = generic.type->metaConnect(generic.value, object, signal, AnyFunction::from(send),
                                           MetaCallType::Auto);
  } catch (...) {  // of the user's, where the object has a metaConnect of its own
    unsubscribe(subscription);
    throw;
  }
  return connecting.then(
      [self = shared_from_this(), weak = WeakObject<Empty>(object),
       subscription](Future<SignalLink> connected) {
        if (connected.hasError())
          self->unsubscribe(subscription);
        else if (!self->keep(subscription, connected.value()))
          disconnectLater(weak, connected.value());
        connected.value();
        return AnyReference::ofVoid();
      },
      FutureCallbackType::Sync);
}

bool SignalRelay::isSubscribed(std::uint64_t subscription) const {
  const std::lock_guard lock(mutex_);
  return subscriptions_.contains(subscription);
}

std::size_t SignalRelay::size() const {
  const std::lock_guard lock(mutex_);
  return subscriptions_.size();
}

void SignalRelay::unsubscribe(std::uint64_t subscription) {
  Subscriptions::node_type ended;
  {
    const std::lock_guard lock(mutex_);
    ended = subscriptions_.extract(subscription);
  }
  if (ended) disconnectLater(ended.mapped().object, ended.mapped().link);
}

void SignalRelay::end() {
  Subscriptions ended;
  {
    const std::lock_guard lock(mutex_);
    isEnded_ = true;
    ended.swap(subscriptions_);
  }
  for (const auto& [id, subscription] : ended)
    disconnectLater(subscription.object, subscription.link);
}

}  // namespace gv::rpc
