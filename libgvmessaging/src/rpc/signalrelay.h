#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include <gvtype/object.h>

#include "src/rpc/objectaddress.h"

namespace gv::rpc {

class Connection;

/// The signals of this process's objects that one peer listens to: each emission is sent as an
/// event. A subscription ends with the connection, with its object, and with the first emission
/// after the object was unregistered or given back. Callable from any thread.
class SignalRelay : public std::enable_shared_from_this<SignalRelay> {
 public:
  explicit SignalRelay(std::size_t limit) : limit_(limit) {}

  /// Settles when every later emission is sent. Fails as connecting a handler here does.
  Future<AnyReference> subscribe(const std::shared_ptr<Connection>& connection,
                                 const ObjectAddress& address, const Object<Empty>& object,
                                 unsigned signal, std::uint64_t subscription);
  bool isSubscribed(std::uint64_t subscription) const;
  /// Does nothing for a subscription that there is not.
  void unsubscribe(std::uint64_t subscription);
  void end();
  std::size_t size() const;

 private:
  /// `link` is 0 until the object has connected.
  struct Subscription {
    WeakObject<Empty> object;
    SignalLink link = 0;
  };
  using Subscriptions = std::unordered_map<std::uint64_t, Subscription>;

  void reserve(std::uint64_t subscription, const Object<Empty>& object);
  bool keep(std::uint64_t subscription, SignalLink link);

  const std::size_t limit_;
  mutable std::mutex mutex_;  // guards what follows
  Subscriptions subscriptions_;
  bool isEnded_ = false;
};

}  // namespace gv::rpc
