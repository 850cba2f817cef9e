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

/// Settles with the result of calling the function, or with what it throws.
template <class T, class F, class... Args>
void settleWith(const Promise<T>& promise, F& function, Args&&... args) {
  std::optional<Stored<T>> result;
  try {
    if constexpr (std::is_void_v<T>) {
      std::invoke(function, std::forward<Args>(args)...);
      result.emplace();
    } else {
      result.emplace(std::invoke(function, std::forward<Args>(args)...));
    }
  } catch (...) {
    CurrentError failure = currentError();
    promise.setError(std::move(failure.text), failure.state);
    return;
  }
  if constexpr (std::is_void_v<T>) {
    promise.setValue();
  } else {
    promise.setValue(std::move(*result));
  }
}

/// Settles the promise as the finished future ended.
template <class T>
void settleLike(const Promise<T>& promise, const Future<T>& finished) {
  switch (finished.wait(0)) {
    case gv::FutureState::FinishedWithValue:
      if constexpr (std::is_void_v<T>) {
        promise.setValue();
      } else {
        auto copy = [&finished] { return finished.value(0); };
        settleWith(promise, copy);
      }
      return;
    case gv::FutureState::FinishedWithError:
      promise.setError(finished.error(0), finished.errorState(0));
      return;
    default:
      promise.setCanceled();
  }
}

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
      settleWith(promise, function, std::move(finished));
    }
  }

  void flatten(Future<T> finished) {
    R inner;
    try {
      inner = std::invoke(function, std::move(finished));
      if (!inner.isValid()) throwInvalid("then");
    } catch (...) {
      CurrentError failure = currentError();
      promise.setError(std::move(failure.text), failure.state);
      return;
    }
    forwardCancel(promise, inner);
    inner.connect([promise = promise](R ended) { settleLike(promise, ended); },
                  FutureCallbackType::Sync);
  }

  /// Cancelling the promise's future asks `source` to cancel. Weakly: the source's callbacks hold
  /// the promise.
  template <class U>
  static void forwardCancel(const Promise<Result>& promise, const Future<U>& source) {
    promise.state_->setCancelAction([weak = source.weakState()] {
      if (auto state = weak.lock()) state->cancel();
    });
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
  Continuation::forwardCancel(promise, *this);
  connect(Continuation{std::move(promise), std::move(function)}, type);
  return result;
}

}  // namespace gv
