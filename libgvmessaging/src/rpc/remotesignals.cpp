#include "src/rpc/remotesignals.h"

#include <boost/make_shared.hpp>
#include <optional>

#include <gv/eventloop.h>

#include "src/rpc/callcontext.h"
#include "src/rpc/connection.h"
#include "src/rpc/frameworkmethods.h"

namespace gv::rpc {
namespace {

/// The types in which values of a signal arrive.
std::vector<const TypeInterface*> typesOf(const Signature& parameters) {
  std::vector<const TypeInterface*> types;
  for (const std::string_view parameter : signatureMembers(parameters.toString()))
    types.push_back(AnyValue::makeDefault(parameter).type());
  return types;
}

Object<DynamicObject> makeStandIn() {
  const auto object = boost::make_shared<DynamicObject>();
  object->setThreadingModel(ObjectThreadingModel::SingleThread);  // emissions one by one
  return object;
}

/// Not in the thread that settles: with the handler foreign code dies.
void disconnectLater(const Object<Empty>& object, SignalLink link) {
  try {
    getEventLoop()->post([object, link] { object.disconnect(link); });
  } catch (const std::exception&) {
    // In a forked child nothing arrives.
  }
}

}  // namespace

RemoteSignals::RemoteSignals(std::shared_ptr<Connection> connection, const ObjectAddress& address)
    : connection_(std::move(connection)), address_(address), standIn_(makeStandIn()) {}

RemoteSignals::~RemoteSignals() {
  for (const auto& [signal, subscription] : subscriptions_) {
    unsubscribe(subscription.id);
    // What is on its way to the handlers starts none of them any more.
    for (const SignalLink link : subscription.links) standIn_->metaDisconnect(standIn_, link);
  }
}

unsigned RemoteSignals::standInSignal(const MetaSignal& signal) {
  const std::lock_guard lock(mutex_);
  const auto known = standInIds_.find(signal.uid());
  if (known != standInIds_.end()) return known->second;
  const unsigned id = standIn_->addSignal(signal.name(), typesOf(signal.signature()));
  standInIds_.emplace(signal.uid(), id);
  return id;
}

Future<SignalLink> RemoteSignals::connect(const Object<Empty>& context, const MetaSignal& signal,
                                          AnyFunction handler, MetaCallType callType) {
  SignalLink link = 0;
  Future<void> confirmed;
  try {
    link = standIn_->metaConnect(standIn_, standInSignal(signal), std::move(handler), callType)
               .value();
    confirmed = subscribe(signal, link);
  } catch (const std::exception& error) {
    return makeFailedFuture<SignalLink>(error.what());
  }
  return confirmed.then(
      [context, link](Future<void> settled) {
        if (settled.hasError()) disconnectLater(context, link);
        settled.value();
        return link;
      },
      FutureCallbackType::Sync);
}

Future<void> RemoteSignals::subscribe(const MetaSignal& signal, SignalLink link) {
  Promise<void> confirmed(FutureCallbackType::Sync);
  std::uint64_t id = 0;
  std::uint64_t failed = 0;
  Future<void> former;  // dies after the unlock
  {
    const std::lock_guard lock(mutex_);
    Subscription& subscription = subscriptions_[signal.uid()];
    subscription.links.insert(link);
    former = subscription.confirmed;
    // One that failed stands here until its handlers are disconnected.
    const bool hasFailed = former.isFinished() && former.hasError(0);
    if (subscription.id != 0 && !hasFailed) return former;
    failed = subscription.id;
    id = subscription.id = nextCallId();
    subscription.confirmed = confirmed.future();
  }
  if (failed != 0) unsubscribe(failed);
  askOwner(signal, id, confirmed);
  return confirmed.future();
}

void RemoteSignals::askOwner(const MetaSignal& signal, std::uint64_t id,
                             const Promise<void>& confirmed) {
  connection_->eventTargets().add(
      id, {standIn_, standInSignal(signal), std::make_shared<MetaSignal>(signal)});
  connection_
      ->call(address_, subscribeMethod(), makeParameters(signal.uid(), id), MetaCallType::Auto)
      .connect(
          [confirmed](const Future<AnyReference>& settled) {
            if (settled.hasError())
              confirmed.setError(settled.error(), settled.errorState());
            else
              confirmed.setValue();
          },
          FutureCallbackType::Sync);
}

Future<void> RemoteSignals::disconnect(SignalLink link) {
  std::uint64_t ended = 0;
  {
    const std::lock_guard lock(mutex_);
    for (auto each = subscriptions_.begin(); each != subscriptions_.end(); ++each) {
      if (each->second.links.erase(link) == 0) continue;
      if (!each->second.links.empty()) break;
      ended = each->second.id;
      subscriptions_.erase(each);
      break;
    }
  }
  if (ended != 0) unsubscribe(ended);
  return standIn_->metaDisconnect(standIn_, link);
}

void RemoteSignals::unsubscribe(std::uint64_t id) {
  connection_->eventTargets().remove(id);
  try {
    connection_->post({}, unsubscribeMethod(), makeParameters(id));
  } catch (const std::exception&) {
    // The connection has ended, and all subscriptions with it.
  }
}

}  // namespace gv::rpc
