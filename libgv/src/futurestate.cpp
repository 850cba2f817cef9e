#include <gv/detail/futurestate.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

#include <gv/blocking.h>
#include <gv/eventloop.h>
#include <gv/log.h>

namespace gv {

FutureException::FutureException(State state, const std::string& text)
    : std::runtime_error(text), state_(state) {}

FutureException::~FutureException() = default;

namespace detail {
namespace {

using Clock = std::chrono::steady_clock;

// Answers that come from a running thread mostly come within this time, and a sleep costs more.
constexpr std::chrono::microseconds spinTime(10);

template <class Action>
void runSafely(log::Level level, const char* what, const Action& action) {
  try {
    action();
  } catch (...) {
    GV_LOG(level, "gv.future", what, currentError().text);
  }
}

void call(FutureState::Callback callback, FutureCallbackType type, FutureState::Pointer state) {
  // Posting fails in a forked child only (or without memory); the settling side must not suffer.
  runSafely(log::Level::Error, "connect", [&] {
    if (type == FutureCallbackType::Sync) {
      callback(state);
    } else {
      getEventLoop()->post(
          [callback = std::move(callback), state = std::move(state)] { callback(state); });
    }
  });
}

}  // namespace

FutureState::FutureState(FutureCallbackType type) : callbackType_(type) {}

FutureState::~FutureState() = default;

gv::FutureState FutureState::wait(int timeoutMs) const {
  if (state() != gv::FutureState::Running || timeoutMs <= 0) return state();
  const auto spinEnd = Clock::now() + spinTime;
  do {
    std::this_thread::yield();
    if (state() != gv::FutureState::Running) return state();
  } while (Clock::now() < spinEnd);

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
  switch (waitSettled(timeoutMs)) {
    case gv::FutureState::FinishedWithError:
      return errorState_;
    case gv::FutureState::Canceled:
      return FutureException::State::Canceled;
    default:
      throw FutureException(FutureException::State::Invalid, "the future has a value, no error");
  }
}

void FutureState::connect(Callback callback, FutureCallbackType type) {
  {
    std::lock_guard lock(mutex_);
    if (state() == gv::FutureState::Running) {
      callbacks_.push_back({std::move(callback), type});
      return;
    }
  }
  call(std::move(callback), type, shared_from_this());
}

void FutureState::cancel() {
  std::function<void()> action;
  {
    std::lock_guard lock(mutex_);
    if (state() != gv::FutureState::Running || cancelRequested_) return;
    cancelRequested_ = true;
    action.swap(cancelAction_);
  }
  // A settlement that overtook the action makes it throw; that is no fault worth more than a note.
  if (action) runSafely(log::Level::Verbose, "cancel", action);
}

void FutureState::setCancelAction(std::function<void()> action) {
  {
    std::lock_guard lock(mutex_);
    if (state() != gv::FutureState::Running) return;
    if (!cancelRequested_) {
      action.swap(cancelAction_);
      return;
    }
  }
  runSafely(log::Level::Verbose, "cancel", action);
}

void FutureState::claim() {
  if (claimed_.exchange(true)) throw std::logic_error("the promise is already settled");
}

void FutureState::finishWithValue() noexcept {
  finish(gv::FutureState::FinishedWithValue);
}

void FutureState::finishWithError(std::string text, FutureException::State state) noexcept {
  error_ = std::move(text);
  errorState_ = state;
  finish(gv::FutureState::FinishedWithError);
}

void FutureState::finishCanceled() noexcept {
  finish(gv::FutureState::Canceled);
}

void FutureState::finish(gv::FutureState end) noexcept {
  // Both die at the end of the function, unlocked: their captures are foreign code.
  std::vector<Connected> callbacks;
  std::function<void()> cancelAction;
  {
    std::lock_guard lock(mutex_);
    state_.store(end, std::memory_order_release);
    callbacks.swap(callbacks_);
    cancelAction.swap(cancelAction_);
  }
  settled_.notify_all();
  for (Connected& connected : callbacks) {
    call(std::move(connected.callback), connected.type, shared_from_this());
  }
}

void FutureState::removePromise() noexcept {
  if (promises_.fetch_sub(1, std::memory_order_acq_rel) != 1 || claimed_.exchange(true)) return;
  finishWithError("broken promise: every promise of this future is gone unsettled",
                  FutureException::State::BrokenPromise);
}

CurrentError currentError() {
  try {
    throw;
  } catch (const FutureException& error) {
    switch (error.state()) {
      // These two tell of the wait that threw, not of how the new future ends.
      case FutureException::State::Timeout:
      case FutureException::State::Invalid:
        return {error.what(), FutureException::State::UserError};
      default:
        return {error.what(), error.state()};
    }
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
