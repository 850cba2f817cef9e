#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include <gvtype/dynamicobject.h>

#include "src/rpc/objectaddress.h"

namespace gv::rpc {

class Connection;

/// The handlers of this process on the signals of one object elsewhere.
///
/// They are connected to a stand-in, a local object with a signal for each of those. What the owner
/// sends is emitted there: on the event loop, one emission of the object after the other. However
/// many handlers a signal has, it is subscribed to once. Callable from any thread.
class RemoteSignals {
 public:
  RemoteSignals(std::shared_ptr<Connection> connection, const ObjectAddress& address);
  /// Disconnects all.
  ~RemoteSignals();
  RemoteSignals(const RemoteSignals&) = delete;
  RemoteSignals& operator=(const RemoteSignals&) = delete;

  /// The future has the link when the owner has connected; it fails as for a local object.
  /// `context` keeps this alive until then.
  Future<SignalLink> connect(const Object<Empty>& context, const MetaSignal& signal,
                             AnyFunction handler, MetaCallType callType);
  Future<void> disconnect(SignalLink link);

 private:
  /// What the owner sends of one signal. It ends with its last handler.
  struct Subscription {
    std::uint64_t id = 0;
    std::set<SignalLink> links;
    Future<void> confirmed;
  };

  unsigned standInSignal(const MetaSignal& signal);
  Future<void> subscribe(const MetaSignal& signal, SignalLink link);
  void askOwner(const MetaSignal& signal, std::uint64_t id, const Promise<void>& confirmed);
  void unsubscribe(std::uint64_t id);

  const std::shared_ptr<Connection> connection_;
  const ObjectAddress address_;
  const Object<DynamicObject> standIn_;

  std::mutex mutex_;                                // guards what follows
  std::map<unsigned, unsigned> standInIds_;         // the stand-in's signals, by the owner's id
  std::map<unsigned, Subscription> subscriptions_;  // by the signal's id
};

}  // namespace gv::rpc
