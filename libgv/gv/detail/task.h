#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include <gv/api.h>
#include <gv/future.h>

namespace gv::detail {

class Pool;
class Task;
using TaskPointer = std::shared_ptr<Task>;
using DelayedTasks = std::multimap<std::chrono::steady_clock::time_point, TaskPointer>;

/// One posted function. Whoever moves the state to Started runs it, whoever moves it to Dropped
/// discards it: exactly one of the two happens, once, with no lock held.
class GV_API Task {
 public:
  Task() = default;
  virtual ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  /// Keeps the task from starting and discards it. True: it has not run and never will.
  bool drop();
  /// The first half of `drop`, once: the caller, for whom it is true, discards.
  bool moveToDropped();

  /// Calls the function, then destroys it.
  virtual void run() = 0;
  /// Destroys the function.
  virtual void discard() noexcept = 0;
  /// Answers in place of running, for tasks that are calls from elsewhere; then discards.
  virtual void refuse() { discard(); }
  virtual bool isRefusable() const noexcept { return false; }

 private:
  friend class Pool;
  friend class TaskQueue;
  enum class State { New, Delayed, Queued, Started, Dropped };

  bool move(State from, State to) noexcept { return state_.compare_exchange_strong(from, to); }

  std::atomic<State> state_{State::New};

  // Guarded by the pool's mutex.
  TaskPointer next_;
  std::chrono::steady_clock::time_point queuedAt_;
  DelayedTasks::iterator delayedAt_;

  std::weak_ptr<Pool> pool_;  // of a delayed task, constant once it was posted
};

/// A task that is a plain function, movable at least.
template <class F>
class FunctionTask final : public Task {
 public:
  explicit FunctionTask(F function) : function_(std::move(function)) { checkDestructible<F>(); }

  void run() override {
    struct Reset {
      std::optional<F>& function;
      ~Reset() { function.reset(); }
    } const reset{function_};
    (*function_)();
  }
  void discard() noexcept override { function_.reset(); }

 private:
  std::optional<F> function_;
};

/// A task and the future of its result, in one piece.
template <class F, class R>
class AsyncTask final : public Task, public FutureValue<R> {
 public:
  explicit AsyncTask(F function)
      : FutureValue<R>(FutureCallbackType::Async), function_(std::move(function)) {
    checkDestructible<F>();
    this->addPromise();
  }

  void run() override {
    const SettlingScope scope(this);
    auto outcome = Outcome<R>::of(*function_);
    function_.reset();
    Settler::settle<R>(*this, std::move(outcome));
  }
  void discard() noexcept override {
    function_.reset();
    this->removePromise();
  }

 private:
  /// Heeded as long as the task has not started.
  std::shared_ptr<FutureState> cancelThis() override {
    if (!moveToDropped()) return FutureState::cancelThis();
    function_.reset();
    this->claim();
    this->finishCanceled(CallbackTime::AtOnce);
    return nullptr;
  }

  std::optional<F> function_;
};

/// A task that is a call from elsewhere, with what answers it when it is refused.
template <class F, class G>
class CallTask final : public Task {
 public:
  CallTask(F function, G refusal) : both_(std::in_place, std::move(function), std::move(refusal)) {}

  void run() override {
    auto taken = take();
    taken->first();
  }
  void refuse() override {
    auto taken = take();
    taken->second();
  }
  void discard() noexcept override { both_.reset(); }
  bool isRefusable() const noexcept override { return true; }

 private:
  std::optional<std::pair<F, G>> take() { return std::exchange(both_, std::nullopt); }

  std::optional<std::pair<F, G>> both_;
};

}  // namespace gv::detail
