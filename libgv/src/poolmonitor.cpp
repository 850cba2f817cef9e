#include <algorithm>
#include <system_error>
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
    if (growsWhenStalled(timedViewLocked(now))) startWorkerLocked();
    startReporterLocked(now);
    if (runChoresLocked(lock)) continue;

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

/// What is done unlocked; true when there was something and time has passed.
bool Pool::runChoresLocked(Lock& lock) {
  auto ended = std::exchange(ended_, {});
  auto refused = std::exchange(refused_, {});
  if (ended.empty() && refused.empty()) return false;
  lock.unlock();
  for (const ThreadPointer& thread : ended) thread->handle.join();
  for (const TaskPointer& task : refused) runLogged("tryPost", [&] { task->refuse(); });
  ended.clear();
  refused.clear();
  lock.lock();
  return true;
}

/// Warnings are logged by a thread of their own: a handler that blocks would stop the monitor, and
/// with it timers and growth.
void Pool::startReporterLocked(Clock::time_point now) {
  if (std::string warning = warningLocked(now); !warning.empty()) warning_ = std::move(warning);
  if (isReporting_ || warning_.empty()) return;
  try {
    startThreadLocked("gv-report", std::make_shared<Thread>(), [this] { report(); });
    isReporting_ = true;
  } catch (const std::system_error&) {
    // Tried again at the next look.
  }
}

void Pool::report() {
  Lock lock(mutex_);
  while (!warning_.empty()) {
    const auto warning = std::exchange(warning_, {});
    lock.unlock();
    GV_LOG(log::Level::Warning, "gv.eventloop", "post", warning);
    lock.lock();
  }
  isReporting_ = false;
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

}  // namespace gv::detail
