#pragma once

#include <optional>
#include <type_traits>
#include <utility>

#include <gv/detail/futurestate.h>

namespace gv::detail {

/// Stands for the value of a `Future<void>`.
struct NoValue {};

template <class T>
using Stored = std::conditional_t<std::is_void_v<T>, NoValue, T>;

/// The shared state of a future with its value.
template <class T>
class FutureValue final : public FutureState {
 public:
  using FutureState::FutureState;

  /// Settles with the value; throws std::logic_error when settled before. A value whose move throws
  /// settles with that error: the claim is spent.
  void settle(Stored<T> value) {
    claim();
    if constexpr (std::is_nothrow_move_constructible_v<Stored<T>>) {
      value_.emplace(std::move(value));
    } else {
      try {
        value_.emplace(std::move(value));
      } catch (...) {
        CurrentError failure = currentError();
        finishWithError(std::move(failure.text), failure.state);
        return;
      }
    }
    finishWithValue();
  }

  /// Needs state FinishedWithValue.
  const Stored<T>& value() const noexcept { return *value_; }

 private:
  // Written by the winner of `claim` before it publishes, constant afterwards.
  std::optional<Stored<T>> value_;
};

}  // namespace gv::detail
