#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include <gv/detail/futurestate.h>

namespace gv {

template <class T>
class Future;

namespace detail {

/// Stands for the value of a `Future<void>`.
struct NoValue {};

template <class T>
using Stored = std::conditional_t<std::is_void_v<T>, NoValue, T>;

/// Refuses, with a text, what would end the process from a destructor.
template <class F>
constexpr void checkDestructible() {
  static_assert(std::is_nothrow_destructible_v<F>,
                "what is posted, connected or promised must not throw from its destructor");
}

/// The shared state of a future with its value.
template <class T>
class FutureValue : public FutureState {
 public:
  explicit FutureValue(FutureCallbackType type) : FutureState(type) {
    checkDestructible<Stored<T>>();
  }

  /// Settles with the value; throws std::logic_error when settled before. A value whose move throws
  /// settles with that error: the claim is spent.
  void settle(Stored<T> value, CallbackTime time) {
    claim();
    if constexpr (std::is_nothrow_move_constructible_v<Stored<T>>) {
      value_.emplace(std::move(value));
    } else {
      try {
        value_.emplace(std::move(value));
      } catch (...) {
        CurrentError failure = currentError();
        finishLike(std::move(failure.text), failure.state, time);
        return;
      }
    }
    finishWithValue(time);
  }

  /// Settles with an error; throws std::logic_error when settled before.
  void fail(CurrentError failure, CallbackTime time) {
    claim();
    finishLike(std::move(failure.text), failure.state, time);
  }

  /// Needs state FinishedWithValue.
  const Stored<T>& value() const noexcept { return *value_; }

 private:
  // Written by the winner of `claim` before it publishes, constant afterwards.
  std::optional<Stored<T>> value_;
};

/// A callback that takes the finished future.
template <class T, class F>
struct FunctionCallback final : FutureCallback {
  FunctionCallback(F callable, FutureCallbackType callbackType)
      : FutureCallback(callbackType), function(std::move(callable)) {
    checkDestructible<F>();
  }

  void run(const std::shared_ptr<FutureState>& finished) override {
    std::invoke(function, Future<T>(std::static_pointer_cast<FutureValue<T>>(finished)));
  }

  F function;
};

}  // namespace detail
}  // namespace gv
