#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>

#include <gvtype/dynamicobject.h>

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
    const std::lock_guard lock(mutex_);
    targets_.emplace(subscription, std::move(target));
  }
  void remove(std::uint64_t subscription) {
    std::unordered_map<std::uint64_t, EventTarget>::node_type removed;  // dies after the unlock
    const std::lock_guard lock(mutex_);
    removed = targets_.extract(subscription);
  }
  std::optional<EventTarget> find(std::uint64_t subscription) const {
    const std::lock_guard lock(mutex_);
    const auto found = targets_.find(subscription);
    if (found == targets_.end()) return std::nullopt;
    return found->second;
  }

 private:
  mutable std::mutex mutex_;  // guards targets_
  std::unordered_map<std::uint64_t, EventTarget> targets_;
};

}  // namespace gv::rpc
