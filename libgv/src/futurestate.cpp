#include <gv/detail/futurestate.h>

#include <chrono>
#include <stdexcept>
#include <utility>

#include <gv/blocking.h>
#include <gv/detail/poll.h>
#include <gv/eventloop.h>
#include <gv/log.h>

namespace gv {

FutureException::FutureException(State state, const std::string& text)
    : std::runtime_error(text), state_(state) {}

FutureException::~FutureException() = default;

namespace detail {
namespace {

template <class Action>
void runSafely(log::Level level, const char* function, const Action& action) noexcept {
  try {
    action();
  } catch (...) {
    GV_LOG(level, "gv.future", function, currentError().text);
  }
}

thread_local CallbacksElsewhere::Runner callbackRunner = nullptr;

void start(std::unique_ptr<FutureCallback> callback) noexcept {
  // Posting fails in a forked child only (or without memory); the settling side must not suffer.
  runSafely(log::Level::Error, "connect", [&] {
    if (callback->type == FutureCallbackType::Sync && !callbackRunner) {
      const auto settled = std::move(callback->settled);
      callback->run(settled);
      callback.reset();
      return;
    }
    if (callback->type == FutureCallbackType::Async) {
      getEventLoop()->post([owned = std::move(callback)] { owned->run(owned->settled); });
      return;
    }
    // Nothing of it stays here: what it holds is to be destroyed where it runs.
    callbackRunner([owned = std::shared_ptr<FutureCallback>(std::move(callback))] {
      owned->run(owned->settled);
    });
  });
}

/// The callbacks that are due on one thread. Settlements by callbacks add theirs at the end, so
/// that a chain of continuations is a loop and no recursion.
class CallbackRun {
 public:
  /// How many runs are nested, one in a callback of the other.
  static int depth() noexcept { return current ? current->depth_ : 0; }

  static void add(CallbackList& callbacks, const std::shared_ptr<FutureState>& settled,
                  CallbackTime time) noexcept {
    if (time == CallbackTime::AfterCurrent && current) {
      callbacks.moveTo(current->due_, settled);
      return;
    }
    CallbackRun run;
    callbacks.moveTo(run.due_, settled);
    run.all();
  }

 private:
  void all() noexcept {
    CallbackRun* const outer = std::exchange(current, this);
    while (auto callback = due_.takeFirst()) start(std::move(callback));
    current = outer;
  }

  static thread_local CallbackRun* current;
  const int depth_ = depth() + 1;
  CallbackList due_;
};

thread_local CallbackRun* CallbackRun::current = nullptr;

thread_local SettlingScope* innermostSettling = nullptr;

}  // namespace

FutureCallback::~FutureCallback() = default;

WaitAid::~WaitAid() = default;

CallbacksElsewhere::CallbacksElsewhere(Runner runner) noexcept
    : outer_(std::exchange(callbackRunner, runner)) {}

CallbacksElsewhere::~CallbacksElsewhere() {
  callbackRunner = outer_;
}

CallbackList::~CallbackList() {
  while (takeFirst()) {
  }
}

void CallbackList::append(std::unique_ptr<FutureCallback> callback) noexcept {
  FutureCallback* const added = callback.get();
  (last_ ? last_->next : first_) = std::move(callback);
  last_ = added;
}

void CallbackList::moveTo(CallbackList& to, const std::shared_ptr<FutureState>& settled) noexcept {
  while (auto callback = takeFirst()) {
    callback->settled = settled;
    to.append(std::move(callback));
  }
}

void CallbackList::swap(CallbackList& other) noexcept {
  first_.swap(other.first_);
  std::swap(last_, other.last_);
}

std::unique_ptr<FutureCallback> CallbackList::takeFirst() noexcept {
  auto taken = std::move(first_);
  if (taken) first_ = std::move(taken->next);
  if (!first_) last_ = nullptr;
  return taken;
}

SettlingScope::SettlingScope(const FutureState* state) noexcept
    : state_(state), outer_(innermostSettling) {
  innermostSettling = this;
}

SettlingScope::~SettlingScope() {
  innermostSettling = outer_;
}

bool SettlingScope::contains(const FutureState* state) noexcept {
  const SettlingScope* scope = innermostSettling;
  while (scope && scope->state_ != state) scope = scope->outer_;
  return scope != nullptr;
}

std::shared_ptr<FutureState> FutureState::Canceler::tell() const noexcept {
  // A settlement that overtook an action makes it throw; that is no fault worth more than a note.
  if (action) runSafely(log::Level::Verbose, "cancel", action);
  return target.lock();
}

FutureState::FutureState(FutureCallbackType type) : callbackType_(type) {}

FutureState::~FutureState() = default;

gv::FutureState FutureState::wait(int timeoutMs) const {
  const auto isSettled = [this] { return state() != gv::FutureState::Running; };
  if (timeoutMs <= 0 || isSettled()) return state();
  const auto aid = aid_.lock();
  if (aid)
    aid->help(*this);
  else
    pollBriefly(isSettled);
  if (isSettled()) return state();
  if (SettlingScope::contains(this)) {
    GV_LOG(log::Level::Warning, "gv.future", "wait",
           "a task waits for its own future, which cannot end before the task does");
  }
  BlockingRegion region;
  sleepUntilSettled(timeoutMs);
  return state();
}

void FutureState::sleepUntilSettled(int timeoutMs) const {
  const auto isSettled = [this] { return state() != gv::FutureState::Running; };
  std::unique_lock lock(mutex_);
  if (timeoutMs == FutureTimeout_Infinite) {
    settled_.wait(lock, isSettled);
  } else {
    settled_.wait_for(lock, std::chrono::milliseconds(timeoutMs), isSettled);
  }
}

gv::FutureState FutureState::waitSettled(int timeoutMs) const {
  const gv::FutureState end = wait(timeoutMs);
  if (end == gv::FutureState::Running) {
    throw FutureException(FutureException::State::Timeout,
                          "the future is not finished after " +
                              std::to_string(timeoutMs < 0 ? 0 : timeoutMs) + " ms");
  }
  return end;
}

void FutureState::waitValue(int timeoutMs) const {
  if (waitSettled(timeoutMs) == gv::FutureState::FinishedWithValue) return;
  std::string text = error(0);
  throw FutureException(errorState_, text);
}

std::string FutureState::error(int timeoutMs) const {
  switch (waitSettled(timeoutMs)) {
    case gv::FutureState::FinishedWithError:
      return error_;
    case gv::FutureState::Canceled:
      throw FutureException(FutureException::State::Canceled, "the future was canceled");
    default:
      throw FutureException(FutureException::State::Invalid, "the future has a value, no error");
  }
}

FutureException::State FutureState::errorState(int timeoutMs) const {
  if (waitSettled(timeoutMs) == gv::FutureState::Canceled) return FutureException::State::Canceled;
  error(0);
  return errorState_;
}

void FutureState::connect(std::unique_ptr<FutureCallback> callback) {
  {
    std::lock_guard lock(mutex_);
    if (state() == gv::FutureState::Running) {
      callbacks_.append(std::move(callback));
      return;
    }
  }
  callback->settled = shared_from_this();
  start(std::move(callback));
}

void FutureState::cancel() {
  // A loop: chains of continuations may be of any length.
  for (auto next = cancelThis(); next;) next = next->cancelThis();
}

std::shared_ptr<FutureState> FutureState::cancelThis() {
  Canceler canceler;
  {
    std::lock_guard lock(mutex_);
    if (state() != gv::FutureState::Running || cancelRequested_) return nullptr;
    cancelRequested_ = true;
    std::swap(canceler, canceler_);
  }
  return canceler.tell();
}

void FutureState::setCancelAction(std::function<void()> action) {
  setCanceler({std::move(action), {}});
}

void FutureState::setCancelTarget(std::weak_ptr<FutureState> target) {
  setCanceler({{}, std::move(target)});
}

void FutureState::setCanceler(Canceler canceler) {
  {
    std::lock_guard lock(mutex_);
    if (state() != gv::FutureState::Running) return;
    if (!cancelRequested_) {
      std::swap(canceler, canceler_);
      return;
    }
  }
  if (const auto next = canceler.tell()) next->cancel();
}

void FutureState::claim() {
  if (claimed_.exchange(true)) throw std::logic_error("the promise is already settled");
}

void FutureState::finishWithValue(CallbackTime time) noexcept {
  finish(gv::FutureState::FinishedWithValue, time);
}

void FutureState::finishWithError(std::string text, FutureException::State state,
                                  CallbackTime time) noexcept {
  error_ = std::move(text);
  errorState_ = state;
  finish(gv::FutureState::FinishedWithError, time);
}

void FutureState::finishCanceled(CallbackTime time) noexcept {
  finish(gv::FutureState::Canceled, time);
}

void FutureState::finishLike(std::string text, FutureException::State state,
                             CallbackTime time) noexcept {
  switch (state) {
    case FutureException::State::Canceled:
      return finishCanceled(time);
    case FutureException::State::Timeout:
    case FutureException::State::Invalid:
      return finishWithError(std::move(text), FutureException::State::UserError, time);
    default:
      return finishWithError(std::move(text), state, time);
  }
}

void FutureState::finish(gv::FutureState end, CallbackTime time) noexcept {
  // Declared here so that both die unlocked: their captures are foreign code.
  CallbackList callbacks;
  Canceler canceler;
  {
    std::lock_guard lock(mutex_);
    state_.store(end, std::memory_order_release);
    callbacks_.swap(callbacks);
    std::swap(canceler, canceler_);
  }
  settled_.notify_all();
  if (!callbacks.isEmpty()) CallbackRun::add(callbacks, shared_from_this(), time);
}

void FutureState::removePromise() noexcept {
  // Promises that die with the callbacks of others could make a chain of any length.
  constexpr int deepest = 16;
  if (promises_.fetch_sub(1, std::memory_order_acq_rel) != 1 || claimed_.exchange(true)) return;
  finishWithError(
      "broken promise: every promise of this future is gone unsettled",
      FutureException::State::BrokenPromise,
      CallbackRun::depth() < deepest ? CallbackTime::AtOnce : CallbackTime::AfterCurrent);
}

CurrentError currentError() {
  try {
    throw;
  } catch (const FutureException& error) {
    return {error.what(), error.state()};
  } catch (const std::exception& error) {
    return {error.what(), FutureException::State::UserError};
  } catch (...) {
    return {"unknown exception", FutureException::State::UserError};
  }
}

void throwInvalid(const char* operation) {
  throw FutureException(FutureException::State::Invalid,
                        std::string(operation) + ": the future is empty");
}

}  // namespace detail
}  // namespace gv
