#pragma once

#include <stdexcept>
#include <string>

#include <gv/api.h>

namespace gv {

/// What a future that did not bring a value throws. The text is that of the failure itself, for a
/// failed call the `what()` of the exception that ended it, unchanged.
class GV_API FutureException : public std::runtime_error {
 public:
  /// Sorted by what the caller does next.
  enum class State {
    Timeout,        ///< not settled in time; ask again later
    Canceled,       ///< ended by a cancellation
    UserError,      ///< the work itself, or the other side, ended with an error
    BrokenPromise,  ///< every promise is gone without having settled; nothing will come
    Invalid,        ///< wrong use: an empty future, or the error of a value
    NotSent,        ///< refused before it was sent: nothing ran, safe to try again
    ConnectionLost  ///< lost after it was sent: it may or may not have run
  };

  FutureException(State state, const std::string& text);
  FutureException(const FutureException&) = default;
  FutureException& operator=(const FutureException&) = default;
  ~FutureException() override;

  State state() const noexcept { return state_; }

 private:
  State state_;
};

}  // namespace gv
