#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gv/log.h>

namespace gv::log {

/// The handlers that receive records, and which threads are inside them.
class HandlerTable {
 public:
  using Function = std::function<void(const Record&)>;

  /// Made at the first use with the default handler; never destroyed.
  static HandlerTable& instance();

  HandlerId add(std::string name, Function function);
  void remove(HandlerId id);
  /// Calls every handler that is not running on this thread already.
  void dispatch(const Record& record);

  /// A fork happens between the first and one of the others, on this thread.
  void lockForFork() { mutex_.lock(); }
  void unlockInParent() { mutex_.unlock(); }
  void unlockInChild();

 private:
  struct Handler;
  struct Frame;
  struct Removal;
  using Handlers = std::vector<std::shared_ptr<Handler>>;

  HandlerTable();
  std::shared_ptr<const Handlers> handlers() const;
  void call(Handler& handler, const Record& record);
  void reportThrow(Handler& handler, const Record& record);
  void waitUntilLeftLocked(std::unique_lock<std::mutex>& lock, Handler& handler);
  unsigned waitingForLocked(const Handler& handler, const Removal& self);
  bool waitsForLocked(Removal& removal, const Removal& self);

  static thread_local const Frame* innermost_;  // calls of handlers on this thread's stack

  mutable std::mutex mutex_;                  // guards all below and the changing fields of Handler
  std::shared_ptr<const Handlers> handlers_;  // replaced, never changed
  HandlerId lastId_ = 0;
  std::vector<Removal*> removals_;  // those that wait at the moment, each on its thread's stack
  std::condition_variable left_;    // a handler was left, or one thread in it waits in `remove`
};

}  // namespace gv::log
