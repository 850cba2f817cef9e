#include "src/pool.h"

#include <pthread.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <gv/detail/poll.h>
#include <gv/log.h>

namespace gv::detail {
namespace {

using std::chrono::milliseconds;

// Far beyond any use, and safe from overflow of the clock.
constexpr milliseconds longest = std::chrono::hours(24 * 365 * 50);

// A worker that would have had its next task within this time had better polled for it.
constexpr std::chrono::microseconds worthPolling(40);
// About what it takes to wake a worker that sleeps.
constexpr std::chrono::microseconds wakeCost(2);

thread_local const Pool* currentPool = nullptr;

// Counted in the child of each fork: there, a pool of the parent has no threads, and its mutex may
// be held for ever by one that is gone.
std::atomic<unsigned> forkGeneration{0};

unsigned watchForks() {
  static const int registered =
      pthread_atfork(nullptr, nullptr, [] { forkGeneration.fetch_add(1); });
  static_cast<void>(registered);
  return forkGeneration.load();
}

EventLoop::Settings completed(EventLoop::Settings settings) {
  if (settings.minThreads == 0) settings.minThreads = std::thread::hardware_concurrency();
  settings.maxThreads = std::max(settings.maxThreads, 1u);
  settings.minThreads = std::clamp(settings.minThreads, 1u, settings.maxThreads);
  settings.growAfter = std::clamp<milliseconds>(settings.growAfter, milliseconds(1), longest);
  settings.retireAfter = std::clamp<milliseconds>(settings.retireAfter, milliseconds(0), longest);
  settings.stopWithin = std::clamp<milliseconds>(settings.stopWithin, milliseconds(0), longest);
  return settings;
}

milliseconds between(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration_cast<milliseconds>(to - from);
}

}  // namespace

// ---- Tasks

Task::~Task() = default;

bool Task::moveToDropped() {
  const bool isMine = move(State::Queued, State::Dropped) || move(State::Delayed, State::Dropped) ||
                      // Its delay was over between the two.
                      move(State::Queued, State::Dropped);
  if (isMine) {
    if (const auto pool = pool_.lock()) pool->forgetDelayed(*this);
  }
  return isMine;
}

bool Task::drop() {
  if (!moveToDropped()) return state_ == State::Dropped;
  discard();
  return true;
}

Pool::Pool(const EventLoop::Settings& settings)
    : settings_(completed(settings)), forkGeneration_(watchForks()) {}

bool Pool::isForked() const noexcept {
  return forkGeneration.load(std::memory_order_relaxed) != forkGeneration_;
}

void Pool::checkNotForked() const {
  if (isForked()) {
    throw std::runtime_error(
        "this event loop was made before the process forked and has no threads in the child");
  }
}

bool Pool::isCurrent() const noexcept {
  return currentPool == this;
}

void Pool::submit(TaskPointer task, std::chrono::milliseconds delay) {
  if (delay.count() <= 0) {
    accept(std::move(task), false);
    return;
  }
  checkNotForked();
  task->pool_ = weak_from_this();
  delay = std::min(delay, longest);
  {
    const Lock lock(mutex_);
    if (!isClosing_) {
      startMonitorLocked();
      const auto due = Clock::now() + delay;
      queue_.schedule(task, due);
      alertMonitorLocked(due);
      return;
    }
    task->state_ = Task::State::Dropped;
  }
  task->discard();
}

bool Pool::trySubmit(TaskPointer task) {
  try {
    return accept(std::move(task), true);
  } catch (const std::system_error&) {
    return false;  // there is no thread and none can be made
  }
}

bool Pool::accept(TaskPointer task, bool isRefusable) {
  checkNotForked();
  const auto now = Clock::now();
  WorkerPointer woken;
  Lock lock = lockSoon(mutex_);
  if (isClosing_) {
    task->state_ = Task::State::Dropped;
    lock.unlock();
    task->discard();
    return true;
  }
  if (isRefusable && refusesCalls(viewLocked())) return false;
  startFirstThreadsLocked();
  queue_.push(task, now);
  hasWork_.store(true, std::memory_order_relaxed);
  if (isLikelyTakenSoonLocked()) {
    lock.unlock();
    if (pollFor(wakeCost, [&] { return task->state_ != Task::State::Queued; })) return true;
    lock.lock();
  }
  woken = provideThreadLocked(now);
  lock.unlock();
  if (woken) woken->wake.notify_one();
  return true;
}

/// A worker that is about to come back for more is quicker than one that has to be woken.
bool Pool::isLikelyTakenSoonLocked() const {
  const unsigned self = isCurrent() ? 1 : 0;  // busy posting
  return pollingPays_ && !idle_.empty() && needsThread(viewLocked()) &&
         workers_ - blocked_ > idle_.size() + guests_ + self;
}

void Pool::forgetDelayed(Task& task) {
  if (isForked()) return;
  const Lock lock(mutex_);
  queue_.forgetDelayed(task);
}

PoolView Pool::viewLocked() const {
  PoolView view;
  view.minThreads = settings_.minThreads;
  view.maxThreads = settings_.maxThreads;
  view.threads = workers_;
  view.guests = guests_;
  view.blocked = blocked_;
  view.arriving = arriving_;
  view.queued = queue_.size();
  view.growAfter = settings_.growAfter;
  return view;
}

PoolView Pool::timedViewLocked(Clock::time_point now) {
  queue_.sweep();
  const auto oldest = queue_.oldest();
  PoolView view = viewLocked();
  view.longestWait = between(oldest.value_or(now), now);
  view.sinceLastStart = between(lastProgress_, now);
  return view;
}

EventLoop::Figures Pool::figures() {
  if (isForked()) return {0, 0, settings_.maxThreads, 0, 0, {}};
  const Lock lock(mutex_);
  const PoolView view = timedViewLocked(Clock::now());
  return {view.threads, view.blocked,         view.maxThreads,
          view.queued,  queue_.delayedSize(), view.longestWait};
}

// ---- Workers

Pool::WorkerPointer Pool::provideThreadLocked(Clock::time_point now) {
  const PoolView view = viewLocked();
  if (!needsThread(view)) return nullptr;
  if (!idle_.empty()) {
    WorkerPointer woken = std::move(idle_.back());
    idle_.pop_back();
    woken->isWoken = true;
    pollingPays_ = now - woken->parkedAt < worthPolling;
    ++arriving_;
    return woken;
  }
  if (growsAtOnce(view)) tryToStartWorkerLocked();
  if (needsThread(viewLocked())) alertMonitorLocked(now + settings_.growAfter);
  return nullptr;
}

void Pool::startFirstThreadsLocked() {
  startMonitorLocked();
  if (workers_ == guests_) startWorkerLocked();
}

void Pool::startWorkerLocked() {
  auto worker = std::make_shared<Worker>(*this);
  startThreadLocked("gv-pool", worker, [this, worker] { work(worker); });
  countWorkerLocked(1);
  ++arriving_;
}

void Pool::countWorkerLocked(int change) noexcept {
  workers_ += static_cast<unsigned>(change);
  lookForRoomLocked();
}

void Pool::lookForRoomLocked() noexcept {
  const bool hasRoom = admitsGuest(viewLocked());
  if (hasRoom != hasRoom_) hasRoom_ = hasRoom;
}

void Pool::tryToStartWorkerLocked() noexcept {
  try {
    startWorkerLocked();
  } catch (const std::exception& error) {
    // The monitor tries again while tasks wait.
    startFailure_ = error.what();
  }
}

void Pool::work(const WorkerPointer& self) {
  BlockingObserverScope scope(self.get());
  currentPool = this;
  Lock lock(mutex_);
  --arriving_;
  while (!isClosing_) {
    if (TaskPointer task = queue_.pop()) {
      if (queue_.size() == 0) hasWork_.store(false, std::memory_order_relaxed);
      ++starts_;
      lock.unlock();
      runLogged("post", [&] { task->run(); });
      task.reset();
      if (isForked()) return;  // the task forked: this is the child, and the pool is the parent's
      lock = lockSoon(mutex_);
    } else if (!idleLocked(lock, self)) {
      break;
    }
  }
  countWorkerLocked(-1);
  lock.unlock();
  currentPool = nullptr;
}

/// Returns with something to do, or false when this worker is one too many.
bool Pool::idleLocked(Lock& lock, const WorkerPointer& self) {
  hasWork_.store(isClosing_, std::memory_order_relaxed);
  return pollForTaskLocked(lock) || parkLocked(lock, self);
}

bool Pool::pollForTaskLocked(Lock& lock) {
  if (isPolling_ || !pollingPays_) return false;
  isPolling_ = true;
  ++arriving_;
  lock.unlock();
  const bool found = pollBriefly([this] { return hasWork_.load(std::memory_order_relaxed); });
  lock.lock();
  pollingPays_ = found;
  --arriving_;
  isPolling_ = false;
  return queue_.size() > 0 || isClosing_;
}

bool Pool::parkLocked(Lock& lock, const WorkerPointer& self) {
  self->parkedAt = Clock::now();
  const auto retireAt = self->parkedAt + settings_.retireAfter;
  self->isWoken = false;
  idle_.push_back(self);
  const auto isOver = [&] { return self->isWoken || isClosing_; };
  while (!isOver()) {
    if (!mayRetire(viewLocked())) {
      self->wake.wait(lock);
    } else if (!self->wake.wait_until(lock, retireAt, isOver) && mayRetire(viewLocked())) {
      std::erase(idle_, self);
      return false;
    }
  }
  if (self->isWoken) {
    --arriving_;
  } else {
    std::erase(idle_, self);
  }
  return true;
}

void Pool::workerWillBlock() noexcept {
  if (isForked()) return;
  WorkerPointer woken;
  {
    const Lock lock(mutex_);
    ++blocked_;
    lookForRoomLocked();
    if (isClosing_) return;
    const auto now = Clock::now();
    woken = provideThreadLocked(now);
    if (refusesCalls(viewLocked())) {
      // Nested calls: those queued behind the ones that wait for them would never be answered.
      auto refusable = queue_.takeRefusable();
      if (!refusable.empty()) alertMonitorLocked(now);
      refused_.insert(refused_.end(), refusable.begin(), refusable.end());
    }
  }
  if (woken) woken->wake.notify_one();
}

void Pool::workerHasUnblocked() noexcept {
  if (isForked()) return;
  const Lock lock(mutex_);
  --blocked_;
  lookForRoomLocked();
}

void Pool::addGuest() noexcept {
  if (isForked()) return;
  const Lock lock(mutex_);
  ++guests_;
  countWorkerLocked(1);
  // Idle ones above the ceiling would only have to retire.
  if (workers_ > settings_.maxThreads && idle_.empty()) warnOfGuestsLocked();
}

void Pool::removeGuest() noexcept {
  if (isForked()) return;
  const Lock lock(mutex_);
  --guests_;
  countWorkerLocked(-1);
}

std::string describeException() {
  return "ended with an exception: " + currentError().text;
}

void logException(const char* operation) noexcept {
  GV_LOG(log::Level::Error, "gv.eventloop", operation, describeException());
}

}  // namespace gv::detail
