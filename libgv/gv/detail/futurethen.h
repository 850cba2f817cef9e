#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include <gv/future.h>

// How one future's end settles another promise. Included by <gv/future.h>.

namespace gv::detail {

/// The type that `then` gives for a function's result: a future is flattened.
template <class R>
struct Flattened {
  using Type = R;
  static constexpr bool isFuture = false;
};
template <class T>
struct Flattened<Future<T>> {
  using Type = T;
  static constexpr bool isFuture = true;
};

/// What a function came to: a value, or else an error.
template <class T>
struct Outcome {
  std::optional<Stored<T>> value;
  CurrentError error;

  template <class F, class... Args>
  static Outcome of(F& function, Args&&... args) {
    Outcome outcome;
    try {
      if constexpr (std::is_void_v<T>) {
        std::invoke(function, std::forward<Args>(args)...);
        outcome.value.emplace();
      } else {
        outcome.value.emplace(std::invoke(function, std::forward<Args>(args)...));
      }
    } catch (...) {
      outcome.error = currentError();
    }
    return outcome;
  }
};

/// Settles for the framework: callbacks come after the one that is running.
struct Settler {
  template <class T>
  static FutureValue<T>& state(const Promise<T>& promise) {
    return *promise.valid();
  }
  template <class T>
  static Future<T> future(std::shared_ptr<FutureValue<T>> state) {
    return Future<T>(std::move(state));
  }

  template <class T>
  static std::weak_ptr<FutureState> weak(const Future<T>& future, const char* operation) {
    return future.valid(operation);
  }

  template <class T>
  static void settle(FutureValue<T>& state, Outcome<T> outcome) {
    if (outcome.value) {
      state.settle(std::move(*outcome.value), CallbackTime::AfterCurrent);
    } else {
      state.fail(std::move(outcome.error), CallbackTime::AfterCurrent);
    }
  }

  /// Settles as the finished future ended.
  template <class T>
  static void settleLike(FutureValue<T>& state, const Future<T>& finished) {
    switch (finished.wait(0)) {
      case gv::FutureState::FinishedWithValue: {
        const auto copy = [&finished] { return finished.value(0); };
        settle(state, Outcome<T>::of(copy));
        return;
      }
      case gv::FutureState::FinishedWithError:
        state.fail({finished.error(0), finished.errorState(0)}, CallbackTime::AfterCurrent);
        return;
      default:
        state.claim();
        state.finishCanceled(CallbackTime::AfterCurrent);
    }
  }

  /// Cancelling the one asks `source` to cancel. Weakly: the source's callbacks hold the one.
  template <class T, class U>
  static void forwardCancel(FutureValue<T>& state, const Future<U>& source) {
    state.setCancelTarget(weak(source, "then"));
  }
};

/// The callback behind `Future::then`.
template <class T, class F, class R>
struct Continuation {
  using Result = typename Flattened<R>::Type;

  Promise<Result> promise;
  F function;

  void operator()(Future<T> finished) {
    if constexpr (Flattened<R>::isFuture) {
      flatten(std::move(finished));
    } else {
      Settler::settle(Settler::state(promise), Outcome<Result>::of(function, std::move(finished)));
    }
  }

  void flatten(Future<T> finished) {
    R inner;
    try {
      inner = std::invoke(function, std::move(finished));
      if (!inner.isValid()) throwInvalid("then");
    } catch (...) {
      Settler::state(promise).fail(currentError(), CallbackTime::AfterCurrent);
      return;
    }
    Settler::forwardCancel(Settler::state(promise), inner);
    inner.connect(
        [promise = promise](R ended) { Settler::settleLike(Settler::state(promise), ended); },
        FutureCallbackType::Sync);
  }
};

}  // namespace gv::detail

namespace gv {

template <class T>
template <class F>
auto Future<T>::then(F function, FutureCallbackType type) const {
  using R = std::decay_t<std::invoke_result_t<F&, Future<T>>>;
  using Continuation = detail::Continuation<T, F, R>;
  Promise<typename Continuation::Result> promise(valid("then")->callbackType());
  auto result = promise.future();
  detail::Settler::forwardCancel(detail::Settler::state(promise), *this);
  connect(Continuation{std::move(promise), std::move(function)}, type);
  return result;
}

}  // namespace gv
