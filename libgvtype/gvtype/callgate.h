#pragma once

#include <memory>

#include <gvtype/api.h>

namespace gv {

/// What a call that had to wait for its turn must pass, in the thread of its body and right before
/// it starts: its object may have been withdrawn meanwhile. A record.
struct CallGate {
  /// Given to `check` while it lives, null afterwards.
  std::weak_ptr<const void> owner;
  unsigned number = 0;
  /// Throws to refuse; the text is the call's error. Runs on any thread.
  void (*check)(const void* owner, unsigned number) = nullptr;

  void pass() const {
    const auto held = owner.lock();
    check(held.get(), number);
  }
};

/// While it lives, the next call that this thread makes of a dynamic object takes `gate` along if
/// it is queued. Calls that its body makes do not.
class GVTYPE_API CallGateScope {
 public:
  /// The gate must live as long as the scope.
  explicit CallGateScope(const CallGate& gate);
  ~CallGateScope();
  CallGateScope(const CallGateScope&) = delete;
  CallGateScope& operator=(const CallGateScope&) = delete;

  /// The gate of the call that begins now, null for most; it is no other call's then.
  static const CallGate* take();
};

}  // namespace gv
