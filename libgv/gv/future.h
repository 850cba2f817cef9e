#pragma once

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
template <class T, class F, class R>
struct Continuation;
}

/// The outcome of something that ends later: a value, an error or a cancellation.
///
/// A handle: copies share one outcome, which is settled once and never changes. May be used from
/// any thread, copies and the same object alike (but for assigning to one object in two threads).
/// Time-outs are in milliseconds; `FutureTimeout_Infinite` waits for ever, 0 and below do not wait.
/// Waiting polls for some microseconds, then sleeps, having announced that by a `BlockingRegion`;
/// on a pool thread another one takes over meanwhile. It never runs other work on the thread.
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

  /// Calls back once, with this future finished: when it is settled, or at once (by the same rule
  /// of threads) when it is settled already. Callbacks of one type start in the order in which they
  /// were connected before the end. What a callback throws is logged and goes nowhere.
  void connect(std::function<void(Future<T>)> callback, FutureCallbackType type) const {
    valid("connect")->connect(
        [callback = std::move(callback)](const detail::FutureState::Pointer& state) {
          callback(Future(std::static_pointer_cast<State>(state)));
        },
        type);
  }
  /// As above, with the promise's own callback type.
  void connect(std::function<void(Future<T>)> callback) const {
    connect(std::move(callback), valid("connect")->callbackType());
  }

  /// A future of what `function` makes of this one: called as a callback with the finished future,
  /// its result settles the new future; a `Future` that it returns is flattened, its end becomes
  /// the new one's. What it throws becomes the new one's error text. To cancel the new future asks
  /// this one, or the one returned, to cancel. `function` must be copyable.
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
  template <class, class, class>
  friend struct detail::Continuation;

  explicit Future(std::shared_ptr<State> state) noexcept : state_(std::move(state)) {}

  const std::shared_ptr<State>& valid(const char* operation) const {
    if (!state_) detail::throwInvalid(operation);
    return state_;
  }
  std::weak_ptr<detail::FutureState> weakState() const noexcept { return state_; }

  std::shared_ptr<State> state_;
};

/// The side that settles a future, once: with a value, an error or a cancellation.
///
/// A handle: copies share one future. When the last copy goes unsettled, the future ends with an
/// error of kind BrokenPromise. May be used from any thread; when several settle at once, one wins
/// and the others get std::logic_error. Settling wakes those who wait, then runs synchronous
/// callbacks before it returns: hold no lock that they could want.
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

  /// Settles with a copy of the value. Throws std::logic_error when settled before, and what
  /// copying throws (nothing is settled then).
  template <class U = T>
  requires(!std::is_void_v<U>) void setValue(const std::type_identity_t<U>& value) const {
    keep()->settle(U(value));
  }
  /// As above, moving the value in.
  template <class U = T>
  requires(!std::is_void_v<U>) void setValue(std::type_identity_t<U>&& value) const {
    keep()->settle(std::move(value));
  }
  /// Settles a `Promise<void>`.
  void setValue() const requires(std::is_void_v<T>) { keep()->settle({}); }
  /// Settles with an error. Throws std::logic_error when settled before.
  void setError(std::string text,
                FutureException::State state = FutureException::State::UserError) const {
    auto kept = keep();
    kept->claim();
    kept->finishWithError(std::move(text), state);
  }
  /// Settles as cancelled. Throws std::logic_error when settled before.
  void setCanceled() const {
    auto kept = keep();
    kept->claim();
    kept->finishCanceled();
  }

  /// True from the first `Future::cancel` on.
  bool isCancelRequested() const { return keep()->isCancelRequested(); }

  /// The future that this promise settles; empty for a moved-from promise.
  Future<T> future() const { return Future<T>(state_); }

 private:
  friend class EventLoop;
  template <class, class, class>
  friend struct detail::Continuation;

  // A copy: a callback may destroy this promise while it is still settling.
  std::shared_ptr<detail::FutureValue<T>> keep() const {
    if (!state_) detail::throwInvalid("Promise");
    return state_;
  }

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
