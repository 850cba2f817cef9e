#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

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

class FutureState;

/// One callback of a future. Owned by the future until it is settled, then by who runs it, once.
struct GV_API FutureCallback {
  explicit FutureCallback(FutureCallbackType callbackType) : type(callbackType) {}
  virtual ~FutureCallback();
  virtual void run(const std::shared_ptr<FutureState>& settled) = 0;

  const FutureCallbackType type;
  std::shared_ptr<FutureState> settled;  // set when it is due
  std::unique_ptr<FutureCallback> next;
};

/// Callbacks in order. However many there are, destroying them does not recurse.
class GV_API CallbackList {
 public:
  CallbackList() = default;
  CallbackList(const CallbackList&) = delete;
  CallbackList& operator=(const CallbackList&) = delete;
  ~CallbackList();

  bool isEmpty() const noexcept { return !first_; }
  void append(std::unique_ptr<FutureCallback> callback) noexcept;
  /// Makes each due for `settled` and moves it to the end of `to`.
  void moveTo(CallbackList& to, const std::shared_ptr<FutureState>& settled) noexcept;
  std::unique_ptr<FutureCallback> takeFirst() noexcept;
  void swap(CallbackList& other) noexcept;

 private:
  std::unique_ptr<FutureCallback> first_;
  FutureCallback* last_ = nullptr;
};

/// When a settlement runs its synchronous callbacks. `AtOnce`: before it returns. `AfterCurrent`:
/// when the callback that is running on this thread has returned, so that chains of continuations
/// do not pile up on the stack; without one, at once.
enum class CallbackTime { AtOnce, AfterCurrent };

/// Somebody who can bring a settlement about from the very thread that waits for it: the connection
/// that a reply will come over.
class GV_API WaitAid {
 public:
  virtual ~WaitAid();
  /// Called before the thread sleeps. Looks for what settles the future, for some microseconds,
  /// where that seems worth it.
  virtual void help(const FutureState& awaited) noexcept = 0;
};

/// While it lives, synchronous callbacks of futures that this thread settles are given to `runner`,
/// which runs them in another one: for threads that no callback may hold up, and for those that
/// settle the futures of others while they wait, and may hold locks that a callback wants.
class GV_API CallbacksElsewhere {
 public:
  using Runner = void (*)(std::function<void()> callback);

  explicit CallbacksElsewhere(Runner runner) noexcept;
  ~CallbacksElsewhere();
  CallbacksElsewhere(const CallbacksElsewhere&) = delete;
  CallbacksElsewhere& operator=(const CallbacksElsewhere&) = delete;

 private:
  const Runner outer_;
};

/// What every future shares with its promises, but for the value: the one settlement, those who
/// wait for it and those to be called on it.
///
///     Running --claim--> (Running, claimed) --finish--> Canceled | FinishedWith...
///
/// `claim` decides the race of several settlers; its winner stores the value with no lock held and
/// publishes it with one of the finishes. Callbacks, callers' destructors and waits run unlocked.
class GV_API FutureState : public std::enable_shared_from_this<FutureState> {
 public:
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

  void connect(std::unique_ptr<FutureCallback> callback);
  /// To be called before another thread knows the future.
  void setWaitAid(std::weak_ptr<WaitAid> aid) noexcept { aid_ = std::move(aid); }

  /// Asks for cancellation, the first time only: tells whoever is set below, and whom that tells.
  void cancel();
  bool isCancelRequested() const noexcept { return cancelRequested_.load(); }
  /// Whom `cancel` tells, in place of what was set before; told now when that has been asked for.
  /// Dropped when settled.
  void setCancelAction(std::function<void()> action);
  void setCancelTarget(std::weak_ptr<FutureState> target);

  /// Wins the right to settle, or throws std::logic_error.
  void claim();
  /// Each needs `claim` before, and is called once.
  void finishWithValue(CallbackTime time) noexcept;
  void finishWithError(std::string text, FutureException::State state, CallbackTime time) noexcept;
  void finishCanceled(CallbackTime time) noexcept;
  /// As an error says that it ended: a cancellation is one, and what tells of a wait that threw is
  /// an error of the user's.
  void finishLike(std::string text, FutureException::State state, CallbackTime time) noexcept;

  /// Promises count themselves; the last one gone leaves a broken promise if nothing has settled.
  void addPromise() noexcept { promises_.fetch_add(1, std::memory_order_relaxed); }
  void removePromise() noexcept;

 protected:
  /// The first part of `cancel`; returns who is to be told next.
  virtual std::shared_ptr<FutureState> cancelThis();

 private:
  struct Canceler {
    std::function<void()> action;
    std::weak_ptr<FutureState> target;
    std::shared_ptr<FutureState> tell() const noexcept;
  };

  void finish(gv::FutureState end, CallbackTime time) noexcept;
  void setCanceler(Canceler canceler);
  void sleepUntilSettled(int timeoutMs) const;

  const FutureCallbackType callbackType_;
  std::weak_ptr<WaitAid> aid_;  // constant once the future is handed out
  std::atomic<gv::FutureState> state_{gv::FutureState::Running};  // left once, under mutex_
  // Whoever waits looks at the above: what the settler touches first lies on another cache line.
  [[maybe_unused]] std::array<char, 64> distance_;
  std::atomic<bool> claimed_{false};
  std::atomic<bool> cancelRequested_{false};  // set under mutex_
  std::atomic<unsigned> promises_{0};

  // Written by the winner of `claim` before it publishes, constant afterwards.
  std::string error_;
  FutureException::State errorState_ = FutureException::State::UserError;

  mutable std::mutex mutex_;  // guards the two below and the step out of Running
  CallbackList callbacks_;
  Canceler canceler_;
  mutable std::condition_variable settled_;
};

/// Marks the calling thread as the one that will settle a future, so that a wait for that future on
/// this very thread, which could never end, is reported. Scopes nest.
class GV_API SettlingScope {
 public:
  explicit SettlingScope(const FutureState* state) noexcept;
  ~SettlingScope();
  SettlingScope(const SettlingScope&) = delete;
  SettlingScope& operator=(const SettlingScope&) = delete;

 private:
  friend class FutureState;
  static bool contains(const FutureState* state) noexcept;

  const FutureState* const state_;
  SettlingScope* const outer_;
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
