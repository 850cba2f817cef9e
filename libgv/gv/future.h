#pragma once

#include <concepts>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include <gv/detail/futurevalue.h>

namespace gv {

template <class T>
class Promise;

namespace detail {
struct Settler;
template <class T, class F, class R>
struct Continuation;
}  // namespace detail

/// The outcome of something that ends later: a value, an error or a cancellation.
///
/// A handle: copies share one outcome, which is settled once and never changes. May be used from
/// any thread, copies and the same object alike (but for assigning to one object in two threads),
/// and dropped on any: the value goes with the last handle, with no lock held.
///
/// Time-outs are in milliseconds; `FutureTimeout_Infinite` waits for ever, 0 and below do not wait.
/// They follow the steady clock. Waiting polls for some microseconds, for a reply from elsewhere by
/// reading its connection, then sleeps, having announced that by a `BlockingRegion`; on a pool
/// thread another one takes over meanwhile. It runs no tasks, methods or callbacks on the thread.
/// To wait in a task for that task's own future never ends: it is logged as a warning.
///
/// Callbacks are called once each, with this future finished:
/// - `Sync` ones in the thread that settles, before the settlement returns to its caller, or at
///   once in the connecting thread when the future has ended. `Async` ones on the event loop,
///   always. Where the settling thread waits itself, or serves many, `Sync` ones run in another.
/// - Those connected before the end start in the order in which they were connected (the `Async`
///   ones may overlap). One connected while it is being settled is called like any other.
/// - A callback may connect, cancel, wait for other futures, settle other promises and drop any
///   handle, that on this future included. What it throws is logged and goes nowhere. It is
///   destroyed after its call, in the same thread.
/// - Results of `then` are settled when the callback in which that happens has returned: chains of
///   any length take a bounded piece of stack.
///
/// A default constructed future is empty: its state is None, it neither runs nor is finished, and
/// all else throws FutureException with state Invalid.
template <class T>
class Future {
 public:
  using ValueType = T;

  Future() noexcept = default;

  bool isValid() const noexcept { return state_ != nullptr; }

  /// Waits until settled. Returns the state then: still `Running` when the time was over, `None` at
  /// once for an empty future.
  FutureState wait(int timeoutMs = FutureTimeout_Infinite) const {
    return state_ ? state_->wait(timeoutMs) : FutureState::None;
  }
  /// True with a value, an error or a cancellation.
  bool isFinished() const noexcept { return state_ && state_->state() != FutureState::Running; }
  bool isRunning() const noexcept { return state_ && state_->state() == FutureState::Running; }
  bool isCanceled() const noexcept { return state_ && state_->state() == FutureState::Canceled; }

  /// Waits; true when it ended with an error (false for a cancellation). Throws Timeout.
  bool hasError(int timeoutMs = FutureTimeout_Infinite) const {
    return valid("hasError")->waitSettled(timeoutMs) == FutureState::FinishedWithError;
  }
  /// Waits; true when it ended with a value. Throws Timeout.
  bool hasValue(int timeoutMs = FutureTimeout_Infinite) const {
    return valid("hasValue")->waitSettled(timeoutMs) == FutureState::FinishedWithValue;
  }
  /// Waits; the text of the error. Throws Timeout, Canceled, or Invalid when there is a value.
  std::string error(int timeoutMs = FutureTimeout_Infinite) const {
    return valid("error")->error(timeoutMs);
  }
  /// Waits; the kind of the error, `Canceled` for a cancellation. Throws Timeout, or Invalid when
  /// there is a value.
  FutureException::State errorState(int timeoutMs = FutureTimeout_Infinite) const {
    return valid("errorState")->errorState(timeoutMs);
  }
  /// Waits; a copy of the value, made with no lock held. Throws Timeout, Canceled, or the error:
  /// its text as `what()`, its kind as `state()`.
  T value(int timeoutMs = FutureTimeout_Infinite) const {
    valid("value")->waitValue(timeoutMs);
    if constexpr (!std::is_void_v<T>) return state_->value();
  }

  /// Calls `callback`, which takes the finished future, by the rules above. It may be movable only.
  template <std::invocable<Future> F>
  void connect(F callback, FutureCallbackType type) const {
    valid("connect")->connect(
        std::make_unique<detail::FunctionCallback<T, F>>(std::move(callback), type));
  }
  /// As above, with the promise's own callback type.
  template <std::invocable<Future> F>
  void connect(F callback) const {
    connect(std::move(callback), valid("connect")->callbackType());
  }

  /// A future of what `function` makes of this one: called as a callback with the finished future,
  /// its result settles the new future; a `Future` that it returns is flattened, its end becomes
  /// the new one's. What it throws becomes the new one's error text, a FutureException of a
  /// cancellation its cancellation. To cancel the new future asks
  /// this one, or the one returned, to cancel.
  template <class F>
  auto then(F function, FutureCallbackType type) const;
  /// As above, with the promise's own callback type.
  template <class F>
  auto then(F function) const {
    return then(std::move(function), valid("then")->callbackType());
  }

  /// Asks for cancellation: the promise's side decides what to do and when, possibly nothing. No
  /// effect on a finished or empty future, nor the second time.
  void cancel() const {
    if (state_) state_->cancel();
  }

 private:
  using State = detail::FutureValue<T>;
  template <class>
  friend class Promise;
  friend struct detail::Settler;
  template <class, class>
  friend struct detail::FunctionCallback;

  explicit Future(std::shared_ptr<State> state) noexcept : state_(std::move(state)) {}

  const std::shared_ptr<State>& valid(const char* operation) const {
    if (!state_) detail::throwInvalid(operation);
    return state_;
  }
  std::shared_ptr<State> state_;
};

/// The side that settles a future, once: with a value, an error or a cancellation.
///
/// A handle: copies share one future. When the last copy goes unsettled, the future ends with an
/// error of kind BrokenPromise. May be used from any thread; when several settle at once, one wins
/// and the others get std::logic_error. Settling wakes those who wait, then runs synchronous
/// callbacks before it returns (but for those that a `then` in between leads to while another
/// callback is running on this thread): hold no lock that they could want. A callback may destroy
/// this promise, and so may another thread that sees the end.
template <class T>
class Promise {
 public:
  /// `onCancel` runs in the thread that asks for cancellation, at most once; another thread may
  /// settle meanwhile, so what it throws is swallowed. It must not hold a copy of this promise,
  /// which would then never break; it goes when the future is settled.
  explicit Promise(FutureCallbackType type = FutureCallbackType::Async,
                   std::function<void()> onCancel = {})
      : state_(std::make_shared<detail::FutureValue<T>>(type)) {
    state_->addPromise();
    if (onCancel) state_->setCancelAction(std::move(onCancel));
  }
  Promise(const Promise& other) noexcept : state_(other.state_) {
    if (state_) state_->addPromise();
  }
  Promise(Promise&& other) noexcept = default;
  Promise& operator=(Promise other) noexcept {
    state_.swap(other.state_);
    return *this;
  }
  ~Promise() {
    if (state_) state_->removePromise();
  }

  /// Who is asked first by threads that wait. To be called before the future is handed out.
  void setWaitAid(std::weak_ptr<detail::WaitAid> aid) noexcept {
    state_->setWaitAid(std::move(aid));
  }

  /// Settles with a copy of the value. Throws std::logic_error when settled before, and what
  /// copying throws (nothing is settled then). Where moving the copy to its place throws, the
  /// future ends with that error.
  template <class U = T>
  requires(!std::is_void_v<U>) void setValue(const std::type_identity_t<U>& value) const {
    keep()->settle(U(value), detail::CallbackTime::AtOnce);
  }
  /// As above, moving the value in.
  template <class U = T>
  requires(!std::is_void_v<U>) void setValue(std::type_identity_t<U>&& value) const {
    keep()->settle(std::move(value), detail::CallbackTime::AtOnce);
  }
  /// Settles a `Promise<void>`.
  void setValue() const requires(std::is_void_v<T>) {
    keep()->settle({}, detail::CallbackTime::AtOnce);
  }
  /// Settles with an error. Throws std::logic_error when settled before. `Canceled` settles as
  /// cancelled; `Timeout` and `Invalid`, which tell of a wait, count as `UserError`.
  void setError(std::string text,
                FutureException::State state = FutureException::State::UserError) const {
    keep()->fail({std::move(text), state}, detail::CallbackTime::AtOnce);
  }
  /// Settles as cancelled. Throws std::logic_error when settled before.
  void setCanceled() const {
    const auto kept = keep();
    kept->claim();
    kept->finishCanceled(detail::CallbackTime::AtOnce);
  }

  /// True from the first `Future::cancel` on.
  bool isCancelRequested() const { return valid()->isCancelRequested(); }

  /// The future that this promise settles; empty for a moved-from promise.
  Future<T> future() const { return Future<T>(state_); }

 private:
  friend struct detail::Settler;

  const std::shared_ptr<detail::FutureValue<T>>& valid() const {
    if (!state_) detail::throwInvalid("Promise");
    return state_;
  }
  /// A copy for the time of settling: whoever sees the end first may destroy this promise.
  std::shared_ptr<detail::FutureValue<T>> keep() const { return valid(); }

  std::shared_ptr<detail::FutureValue<T>> state_;
};

/// A future that has its value from the start.
template <class T>
Future<T> makeReadyFuture(T value) {
  Promise<T> promise;
  promise.setValue(std::move(value));
  return promise.future();
}
template <class T = void>
requires(std::is_void_v<T>) Future<T> makeReadyFuture() {
  Promise<T> promise;
  promise.setValue();
  return promise.future();
}

/// A future that has failed from the start.
template <class T>
Future<T> makeFailedFuture(std::string text,
                           FutureException::State state = FutureException::State::UserError) {
  Promise<T> promise;
  promise.setError(std::move(text), state);
  return promise.future();
}

}  // namespace gv

#include <gv/detail/futurethen.h>
