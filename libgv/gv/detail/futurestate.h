#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gv/api.h>
#include <gv/futureexception.h>

namespace gv {

/// Where a future stands. `None`: it belongs to no promise (default constructed). `Running` goes
/// to one of the three that follow it, once; they are final.
enum class FutureState { None, Running, Canceled, FinishedWithError, FinishedWithValue };

/// Where a callback runs. `Sync`: in the thread that settles the promise, or in the connecting
/// thread when it is settled already. `Async`: on the event loop, always.
enum class FutureCallbackType { Sync, Async };

/// A wait that never times out, in milliseconds.
inline constexpr int FutureTimeout_Infinite = 0x7fffffff;

namespace detail {

/// What every future shares with its promises, but for the value: the one settlement, those who
/// wait for it and those to be called on it.
///
///     Running --claim--> (Running, claimed) --finish--> Canceled | FinishedWith...
///
/// `claim` decides the race of several settlers; its winner stores the value with no lock held and
/// publishes it with one of the finishes. Callbacks, callers' destructors and waits run unlocked.
class GV_API FutureState : public std::enable_shared_from_this<FutureState> {
 public:
  using Pointer = std::shared_ptr<FutureState>;
  using Callback = std::function<void(const Pointer&)>;

  explicit FutureState(FutureCallbackType type);
  virtual ~FutureState();
  FutureState(const FutureState&) = delete;
  FutureState& operator=(const FutureState&) = delete;

  gv::FutureState state() const noexcept { return state_.load(std::memory_order_acquire); }
  FutureCallbackType callbackType() const noexcept { return callbackType_; }

  /// The state once settled, or `Running` when the time is over.
  gv::FutureState wait(int timeoutMs) const;
  /// As `wait`; throws Timeout when the time is over.
  gv::FutureState waitSettled(int timeoutMs) const;
  /// Returns when there is a value; throws what there is instead.
  void waitValue(int timeoutMs) const;
  std::string error(int timeoutMs) const;
  FutureException::State errorState(int timeoutMs) const;

  void connect(Callback callback, FutureCallbackType type);

  /// Asks for cancellation, the first time only: runs the action set below.
  void cancel();
  bool isCancelRequested() const noexcept { return cancelRequested_.load(); }
  /// What `cancel` does; runs at once when that has been asked for. Dropped when settled.
  void setCancelAction(std::function<void()> action);

  /// Wins the right to settle, or throws std::logic_error.
  void claim();
  /// Each needs `claim` before, and is called once.
  void finishWithValue() noexcept;
  void finishWithError(std::string text, FutureException::State state) noexcept;
  void finishCanceled() noexcept;

  /// Promises count themselves; the last one gone leaves a broken promise if nothing has settled.
  void addPromise() noexcept { promises_.fetch_add(1, std::memory_order_relaxed); }
  void removePromise() noexcept;

 private:
  void finish(gv::FutureState end) noexcept;
  void sleepUntilSettled(int timeoutMs) const;

  struct Connected {
    Callback callback;
    FutureCallbackType type;
  };

  const FutureCallbackType callbackType_;
  std::atomic<gv::FutureState> state_{gv::FutureState::Running};  // left once, under mutex_
  std::atomic<bool> claimed_{false};
  std::atomic<bool> cancelRequested_{false};
  std::atomic<unsigned> promises_{0};

  // Written by the winner of `claim` before it publishes, constant afterwards.
  std::string error_;
  FutureException::State errorState_ = FutureException::State::UserError;

  mutable std::mutex mutex_;  // guards the two below and the step out of Running
  std::vector<Connected> callbacks_;
  std::function<void()> cancelAction_;
  mutable std::condition_variable settled_;
};

/// The error text and kind under which the exception being handled settles a future.
struct CurrentError {
  std::string text;
  FutureException::State state;
};
GV_API CurrentError currentError();

/// Throws Invalid: the operation was called on an empty handle.
[[noreturn]] GV_API void throwInvalid(const char* operation);

}  // namespace detail
}  // namespace gv
