#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gvtype/metacall.h>
#include <gvtype/metaobject.h>

namespace gv {

struct Method {
  Method(MetaMethod described, AnyFunction body, MetaCallType type);

  MetaMethod description;
  AnyFunction function;
  MetaCallType callType;
  /// Whether an automatic call may run it in the calling thread and has its result then.
  bool isDirect;
};

/// The members of an object at one moment. Calls read it without a lock.
struct Members {
  std::vector<const Method*> builtin;
  std::vector<const Method*> own;  // by id, from firstOwnId; null where another member is
  MetaObject metaObject;

  const Method* find(unsigned id) const {
    if (id >= MetaObject::firstOwnId) {
      const std::size_t index = id - MetaObject::firstOwnId;
      return index < own.size() ? own[index] : nullptr;
    }
    for (const Method* method : builtin)
      if (method->description.uid() == id) return method;
    return nullptr;
  }
};

/// What an object offers, as it grows. Any thread.
class MemberTable {
 public:
  /// The framework's own methods of the object, by rising id. Made when they are first looked for:
  /// what stands for an object elsewhere needs none.
  using MakeBuiltins = std::function<std::vector<Method>()>;
  explicit MemberTable(MakeBuiltins makeBuiltins) : makeBuiltins_(std::move(makeBuiltins)) {}

  /// Throws std::runtime_error when the object is full.
  unsigned takeId();
  unsigned addMethod(MetaMethodBuilder method, AnyFunction function, MetaCallType callType);
  void addSignal(MetaSignal signal);
  void addProperty(MetaProperty property);
  void setDescription(const std::string& text);
  /// Stands for all members until another one is added.
  void replace(const MetaObject& metaObject);

  /// What there is now. References into it stay good for the table's life.
  const Members& current() {
    const Members* newest = newest_.load(std::memory_order_acquire);
    return newest ? *newest : collect();
  }

 private:
  const Members& collect();
  unsigned takeIdLocked();
  void publishLocked(Members members);
  void setChangedLocked() { newest_.store(nullptr, std::memory_order_release); }

  const MakeBuiltins makeBuiltins_;

  std::mutex mutex_;                                    // guards what follows, but for newest_
  std::vector<Method> builtins_;                        // snapshots point at them, as at methods_
  std::vector<std::unique_ptr<const Method>> methods_;  // by rising id
  std::vector<MetaSignal> signals_;
  std::vector<MetaProperty> properties_;
  std::string description_;
  unsigned nextId_ = MetaObject::firstOwnId;
  std::vector<std::unique_ptr<const Members>> published_;  // all that were ever read

  /// Null when members were added since. Atomic: calls read it unlocked.
  std::atomic<const Members*> newest_{nullptr};
};

}  // namespace gv
