#include "src/loghandlers.h"

#include <algorithm>
#include <new>
#include <utility>

#include <gv/detail/futurestate.h>

#include "src/stderrhandler.h"

namespace gv::log {

struct HandlerTable::Handler {
  HandlerId id;
  std::string name;
  Function function;     // constant until nobody can enter any more
  unsigned running = 0;  // threads inside
  bool isRemoved = false;
  bool hasThrown = false;
};

/// One call of a handler, on its thread's stack.
struct HandlerTable::Frame {
  Frame(HandlerTable& owner, Handler& called) : table(owner), handler(called), outer(innermost_) {
    innermost_ = this;
  }
  ~Frame() {
    innermost_ = outer;
    std::lock_guard lock(table.mutex_);
    --handler.running;
    if (handler.isRemoved) table.left_.notify_all();
  }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;

  HandlerTable& table;
  Handler& handler;
  const Frame* const outer;
};

/// A thread that waits in `remove`.
struct HandlerTable::Removal {
  const Handler* target;
  const Frame* innermost;
  bool isSeen = false;  // while it is asked whom it waits for

  bool isInside(const Handler& handler) const {
    const Frame* frame = innermost;
    while (frame && &frame->handler != &handler) frame = frame->outer;
    return frame != nullptr;
  }
};

thread_local const HandlerTable::Frame* HandlerTable::innermost_ = nullptr;

HandlerTable& HandlerTable::instance() {
  static HandlerTable* const table = new HandlerTable;
  return *table;
}

HandlerTable::HandlerTable() : handlers_(std::make_shared<Handlers>()) {
  add("stderr", writeToStderr);  // gets DefaultHandler as its id
}

HandlerId HandlerTable::add(std::string name, Function function) {
  auto handler = std::make_shared<Handler>();
  handler->name = std::move(name);
  handler->function = std::move(function);
  std::lock_guard lock(mutex_);
  handler->id = ++lastId_;
  auto changed = std::make_shared<Handlers>(*handlers_);
  changed->push_back(std::move(handler));
  handlers_ = std::move(changed);
  return lastId_;
}

std::shared_ptr<const HandlerTable::Handlers> HandlerTable::handlers() const {
  std::lock_guard lock(mutex_);
  return handlers_;
}

void HandlerTable::dispatch(const Record& record) {
  const auto targets = handlers();
  for (const auto& handler : *targets) {
    bool isRunningHere = false;
    for (const Frame* frame = innermost_; frame; frame = frame->outer) {
      isRunningHere = isRunningHere || &frame->handler == handler.get();
    }
    if (!isRunningHere) call(*handler, record);
  }
}

void HandlerTable::call(Handler& handler, const Record& record) {
  {
    std::lock_guard lock(mutex_);
    if (handler.isRemoved) return;
    ++handler.running;
  }
  const Frame frame(*this, handler);
  try {
    handler.function(record);
  } catch (...) {
    reportThrow(handler, record);
  }
}

void HandlerTable::reportThrow(Handler& handler, const Record& record) {
  {
    std::lock_guard lock(mutex_);
    if (std::exchange(handler.hasThrown, true)) return;
  }
  Record report = record;
  report.level = Level::Error;
  report.category = "gv.log";
  report.function = "write";
  report.file.clear();
  report.line = 0;
  report.text = "handler \"" + handler.name + "\" threw: " + detail::currentError().text;
  dispatch(report);  // the handler is still on this thread's stack and is left out
}

void HandlerTable::remove(HandlerId id) {
  std::shared_ptr<Handler> handler;
  Function dead;  // destroyed after the unlock
  std::unique_lock lock(mutex_);
  const auto hasId = [id](const auto& candidate) { return candidate->id == id; };
  const auto found = std::find_if(handlers_->begin(), handlers_->end(), hasId);
  if (found == handlers_->end()) return;
  handler = *found;
  handler->isRemoved = true;
  // Stays in the table meanwhile, so that a second remover waits as well.
  waitUntilLeftLocked(lock, *handler);

  auto changed = std::make_shared<Handlers>(*handlers_);
  if (std::erase_if(*changed, hasId) == 0) return;
  handlers_ = std::move(changed);
  if (handler->running == 0) dead.swap(handler->function);
  lock.unlock();
}

void HandlerTable::waitUntilLeftLocked(std::unique_lock<std::mutex>& lock, Handler& handler) {
  Removal self{&handler, innermost_};
  removals_.push_back(&self);
  left_.notify_all();
  left_.wait(lock, [&] { return handler.running == waitingForLocked(handler, self); });
  std::erase(removals_, &self);
}

/// How many of the threads inside the handler cannot leave it before `self` gives up: itself, and
/// those that wait for a handler that `self` is inside, directly or through others.
unsigned HandlerTable::waitingForLocked(const Handler& handler, const Removal& self) {
  unsigned count = 0;
  for (Removal* inside : removals_) {
    if (!inside->isInside(handler)) continue;
    for (Removal* removal : removals_) removal->isSeen = false;
    if (waitsForLocked(*inside, self)) ++count;
  }
  return count;
}

bool HandlerTable::waitsForLocked(Removal& removal, const Removal& self) {
  if (&removal == &self || self.isInside(*removal.target)) return true;
  if (std::exchange(removal.isSeen, true)) return false;
  return std::any_of(removals_.begin(), removals_.end(), [&](Removal* other) {
    return other->isInside(*removal.target) && waitsForLocked(*other, self);
  });
}

void HandlerTable::unlockInChild() {
  // Of those inside a handler or in `remove` only this thread is left.
  for (const auto& handler : *handlers_) handler->running = 0;
  for (const Frame* frame = innermost_; frame; frame = frame->outer) frame->handler.running = 1;
  removals_.clear();
  // Not destroyed first, nor used on: either would wait for waiters that are gone.
  new (&left_) std::condition_variable;
  mutex_.unlock();
}

}  // namespace gv::log
