#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include <gvtype/dynamicobject.h>

#include "src/rpc/releasedelsewhere.h"

namespace gv::rpc {

/// Where the events of one subscription go: to a local object, as emissions of a signal of its own.
struct EventTarget {
  Object<DynamicObject> object;
  unsigned signal = 0;
  std::shared_ptr<const MetaSignal> source;  // the peer's signal
};

/// The subscriptions of this side of a connection to signals of the other, by their number.
/// Callable from any thread.
class EventTargets {
 public:
  void add(std::uint64_t subscription, EventTarget target) {
    auto shared = releasedElsewhere(std::move(target));
    const std::lock_guard lock(mutex_);
    targets_.emplace(subscription, std::move(shared));
  }
  void remove(std::uint64_t subscription) {
    Targets::node_type removed;  // dies after the unlock
    const std::lock_guard lock(mutex_);
    removed = targets_.extract(subscription);
  }
  /// Null where there is none. With the object users' handlers may go: see releasedElsewhere.
  std::shared_ptr<const EventTarget> find(std::uint64_t subscription) const {
    const std::lock_guard lock(mutex_);
    const auto found = targets_.find(subscription);
    return found == targets_.end() ? nullptr : found->second;
  }

  std::size_t size() const {
    const std::lock_guard lock(mutex_);
    return targets_.size();
  }

 private:
  using Targets = std::unordered_map<std::uint64_t, std::shared_ptr<const EventTarget>>;

  mutable std::mutex mutex_;  // guards targets_
  Targets targets_;
};

}  // namespace gv::rpc
