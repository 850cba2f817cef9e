#include <algorithm>
#include <utility>

#include <gv/log.h>

#include "src/pool.h"

namespace gv::detail {
namespace {

constexpr std::chrono::seconds warningInterval(1);

}  // namespace

void Pool::monitor() {
  std::unique_lock lock(mutex_);
  while (!isClosing_) {
    const auto now = Clock::now();
    for (std::size_t released = queue_.releaseDue(now); released > 0; --released) {
      if (WorkerPointer woken = provideThreadLocked(now)) woken->wake.notify_one();
    }
    if (growsWhenStalled(viewLocked(now))) startWorkerLocked();
    if (runChoresLocked(lock)) continue;

    monitorWakeAt_ = nextLookLocked(now);
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

Clock::time_point Pool::nextLookLocked(Clock::time_point now) const {
  auto next = queue_.nextDue().value_or(Clock::time_point::max());
  if (const auto oldest = queue_.oldest()) {
    const auto stalledAt = *oldest + settings_.growAfter;
    next = std::min(next, stalledAt > now ? stalledAt : now + settings_.growAfter);
  }
  return next;
}

/// What is done unlocked; true when there was something and time has passed.
bool Pool::runChoresLocked(std::unique_lock<std::mutex>& lock) {
  auto ended = std::exchange(ended_, {});
  auto refused = std::exchange(refused_, {});
  const std::string warning = warningLocked(Clock::now());
  if (ended.empty() && refused.empty() && warning.empty()) return false;

  lock.unlock();
  for (const ThreadPointer& thread : ended) thread->handle.join();
  for (const TaskPointer& task : refused) {
    runLogged("tryPost", task->refuse);
    task->function = nullptr;
    task->refuse = nullptr;
  }
  ended.clear();
  refused.clear();
  if (!warning.empty()) GV_LOG(log::Level::Warning, "gv.eventloop", "post", warning);
  lock.lock();
  return true;
}

std::string Pool::warningLocked(Clock::time_point now) {
  const PoolView view = viewLocked(now);
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
