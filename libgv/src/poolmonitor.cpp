#include <algorithm>
#include <utility>

#include <gv/log.h>

#include "src/pool.h"

namespace gv::detail {
namespace {

constexpr std::chrono::seconds warningInterval(1);

}  // namespace

void Pool::monitor() {
  Lock lock(mutex_);
  while (!isClosing_) {
    const auto now = Clock::now();
    for (std::size_t released = queue_.releaseDue(now); released > 0; --released) {
      hasWork_.store(true, std::memory_order_relaxed);
      if (WorkerPointer woken = provideThreadLocked(now)) woken->wake.notify_one();
    }
    const bool isActive = std::exchange(startsSeen_, starts_) != starts_;
    if (isActive) lastProgress_ = now;
    if (growsWhenStalled(timedViewLocked(now))) tryToStartWorkerLocked();
    if (std::string warning = warningLocked(now); !warning.empty()) warning_ = std::move(warning);
    startReporterLocked();
    if (refuseLocked(lock)) continue;

    monitorWakeAt_ = nextLookLocked(now);
    // While tasks come and go it looks at a steady pace, and need not be woken for each.
    if (isActive) monitorWakeAt_ = std::min(monitorWakeAt_, now + settings_.growAfter / 2);
    if (monitorWakeAt_ == Clock::time_point::max()) {
      monitorWake_.wait(lock);
    } else {
      monitorWake_.wait_until(lock, monitorWakeAt_);
    }
    monitorWakeAt_ = Clock::time_point::min();
  }
}

void Pool::alertMonitorLocked(Clock::time_point when) {
  if (when >= monitorWakeAt_) return;
  monitorWakeAt_ = when;
  monitorWake_.notify_one();
}

Clock::time_point Pool::nextLookLocked(Clock::time_point now) {
  auto next = queue_.nextDue().value_or(Clock::time_point::max());
  if (const auto oldest = queue_.oldest()) {
    const auto stalledAt = *oldest + settings_.growAfter;
    next = std::min(next, stalledAt > now ? stalledAt : now + settings_.growAfter);
  }
  return next;
}

/// True when there was something and time has passed.
bool Pool::refuseLocked(Lock& lock) {
  auto refused = std::exchange(refused_, {});
  if (refused.empty()) return false;
  lock.unlock();
  std::string failure;
  for (const TaskPointer& task : refused) {
    try {
      task->refuse();
    } catch (...) {
      failure = describeException();
    }
  }
  refused.clear();
  lock.lock();
  if (!failure.empty()) warning_ = "a refusal " + failure;
  return true;
}

/// What may block has a thread of its own: a log handler, or a thread_local object of a thread that
/// ends, would stop the monitor, and with it timers and growth.
void Pool::startReporterLocked() {
  if (isReporting_ || (warning_.empty() && ended_.empty())) return;
  auto reporter = std::make_shared<Thread>();
  try {
    startThreadLocked("gv-report", reporter, [this] { report(); });
    isReporting_ = true;
    std::swap(reporter, lastReporter_);
    if (reporter) ended_.push_back(std::move(reporter));
  } catch (const std::exception&) {
    // Tried again when there is more to do.
  }
}

void Pool::report() {
  Lock lock(mutex_);
  while (!warning_.empty() || !ended_.empty()) runChoresLocked(lock);
}

void Pool::runChoresLocked(Lock& lock) {
  auto ended = std::exchange(ended_, {});
  const auto warning = std::exchange(warning_, {});
  lock.unlock();
  if (!warning.empty()) GV_LOG(log::Level::Warning, "gv.eventloop", "post", warning);
  for (const ThreadPointer& thread : ended) thread->handle.join();
  ended.clear();
  lock.lock();
}

std::string Pool::warningLocked(Clock::time_point now) {
  const PoolView view = timedViewLocked(now);
  const bool isStuck = warnsOfCeiling(view);
  if ((!isStuck && startFailure_.empty()) || now < lastWarning_ + warningInterval) return {};
  lastWarning_ = now;
  const std::string waiting = std::to_string(view.queued) + " tasks wait, the oldest for " +
                              std::to_string(view.longestWait.count()) + " ms: ";
  if (!isStuck) return waiting + "cannot start a thread: " + std::exchange(startFailure_, {});
  return waiting + "all " + std::to_string(view.threads) +
         " threads (GV_EVENTLOOP_MAX_THREADS) are busy, " + std::to_string(view.blocked) +
         " of them in a wait";
}

/// Whoever reads cannot be made to wait for a thread of the pool, so that it may be a guest beyond
/// the ceiling; but that is no way to go on.
void Pool::warnOfGuestsLocked() {
  const auto now = Clock::now();
  if (now < lastGuestWarning_ + warningInterval) return;
  lastGuestWarning_ = now;
  warning_ = "calls and synchronous callbacks block beyond GV_EVENTLOOP_MAX_THREADS (" +
             std::to_string(settings_.maxThreads) + "): there are " + std::to_string(workers_) +
             " threads";
  alertMonitorLocked(now);
}

}  // namespace gv::detail
