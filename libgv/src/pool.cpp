#include "src/pool.h"

#include <pthread.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <gv/log.h>

namespace gv::detail {
namespace {

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

void nameThisThread(const std::string& name) {
  const std::string shortened = name.substr(0, 15);  // the kernel's limit
#ifdef __APPLE__
  pthread_setname_np(shortened.c_str());
#else
  pthread_setname_np(pthread_self(), shortened.c_str());
#endif
}

EventLoop::Settings completed(EventLoop::Settings settings) {
  if (settings.minThreads == 0) settings.minThreads = std::thread::hardware_concurrency();
  settings.maxThreads = std::max(settings.maxThreads, 1u);
  settings.minThreads = std::clamp(settings.minThreads, 1u, settings.maxThreads);
  return settings;
}

std::chrono::milliseconds between(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(to - from);
}

}  // namespace

void runLogged(const char* operation, const std::function<void()>& function) noexcept {
  try {
    function();
  } catch (...) {
    GV_LOG(log::Level::Error, "gv.eventloop", operation,
           "ended with an exception: " + currentError().text);
  }
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

bool Pool::submit(const TaskPointer& task, std::chrono::milliseconds delay, bool isRefusable) {
  checkNotForked();
  // Far beyond any use, and safe from overflow of the clock.
  delay = std::min<std::chrono::milliseconds>(delay, std::chrono::hours(24 * 365 * 50));
  WorkerPointer woken;
  std::function<void()> dropped;
  {
    std::lock_guard lock(mutex_);
    if (isClosing_) {
      task->state = Task::State::Dropped;
      dropped.swap(task->function);
      return true;
    }
    const auto now = Clock::now();
    if (isRefusable && refusesCalls(viewLocked(now))) return false;
    startMonitorLocked();
    if (delay.count() > 0) {
      queue_.schedule(task, now + delay);
      alertMonitorLocked(now + delay);
    } else {
      queue_.push(task, now);
      woken = provideThreadLocked(now);
    }
  }
  if (woken) woken->wake.notify_one();
  return true;
}

bool Pool::cancel(Task& task) {
  if (isForked()) return false;
  std::function<void()> function;
  std::function<void()> refuse;
  std::lock_guard lock(mutex_);
  if (!queue_.remove(task)) return task.state == Task::State::Dropped;
  function.swap(task.function);
  refuse.swap(task.refuse);
  return true;
}

PoolView Pool::viewLocked(Clock::time_point now) const {
  PoolView view;
  view.minThreads = settings_.minThreads;
  view.maxThreads = settings_.maxThreads;
  view.threads = workers_;
  view.blocked = blocked_;
  view.arriving = arriving_;
  view.queued = queue_.size();
  view.longestWait = between(queue_.oldest().value_or(now), now);
  view.sinceLastStart = between(lastStart_, now);
  view.growAfter = settings_.growAfter;
  return view;
}

EventLoop::Figures Pool::figures() const {
  if (isForked()) return {0, 0, settings_.maxThreads, 0, {}};
  std::lock_guard lock(mutex_);
  const PoolView view = viewLocked(Clock::now());
  return {view.threads, view.blocked, view.maxThreads, view.queued, view.longestWait};
}

Pool::WorkerPointer Pool::provideThreadLocked(Clock::time_point now) {
  const PoolView view = viewLocked(now);
  if (!needsThread(view)) return nullptr;
  if (!idle_.empty()) {
    WorkerPointer woken = std::move(idle_.back());
    idle_.pop_back();
    woken->isWoken = true;
    ++arriving_;
    return woken;
  }
  if (growsAtOnce(view)) startWorkerLocked();
  if (needsThread(viewLocked(now))) alertMonitorLocked(now + settings_.growAfter);
  return nullptr;
}

void Pool::startWorkerLocked() {
  auto worker = std::make_shared<Worker>(*this);
  try {
    startThreadLocked("gv-pool", worker, [this, worker] { work(worker); });
    ++workers_;
    ++arriving_;
  } catch (const std::system_error& error) {
    // The monitor tries again while tasks wait.
    startFailure_ = error.what();
  }
}

void Pool::startMonitorLocked() {
  if (monitor_) return;
  auto thread = std::make_shared<Thread>();
  startThreadLocked("gv-monitor", thread, [this] { monitor(); });
  monitor_ = std::move(thread);
}

void Pool::startThreadLocked(const std::string& name, const ThreadPointer& thread,
                             std::function<void()> body) {
  live_.push_back(thread);
  try {
    thread->handle =
        std::thread([self = shared_from_this(), name, thread, body = std::move(body)]() mutable {
          nameThisThread(name);
          body();
          body = nullptr;
          self->endThread(thread);
        });
  } catch (...) {
    live_.pop_back();
    throw;
  }
}

void Pool::endThread(const ThreadPointer& thread) {
  std::lock_guard lock(mutex_);
  std::erase(live_, thread);
  ended_.push_back(thread);
  alertMonitorLocked(Clock::now());
  threadEnded_.notify_all();
}

void Pool::work(const WorkerPointer& self) {
  BlockingObserverScope scope(self.get());
  currentPool = this;
  std::unique_lock lock(mutex_);
  --arriving_;
  while (!isClosing_) {
    if (TaskPointer task = queue_.pop()) {
      lastStart_ = Clock::now();
      lock.unlock();
      runLogged("post", task->function);
      // Handles keep the task, not what the function holds.
      task->function = nullptr;
      task.reset();
      lock.lock();
    } else if (!idleLocked(lock, self)) {
      break;
    }
  }
  --workers_;
  lock.unlock();
  currentPool = nullptr;
}

bool Pool::idleLocked(std::unique_lock<std::mutex>& lock, const WorkerPointer& self) {
  const auto retireAt = Clock::now() + settings_.retireAfter;
  self->isWoken = false;
  idle_.push_back(self);
  const auto isOver = [&] { return self->isWoken || isClosing_; };
  while (!isOver()) {
    if (!mayRetire(viewLocked(retireAt))) {
      self->wake.wait(lock);
    } else if (!self->wake.wait_until(lock, retireAt, isOver) && mayRetire(viewLocked(retireAt))) {
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
    std::lock_guard lock(mutex_);
    ++blocked_;
    if (isClosing_) return;
    const auto now = Clock::now();
    woken = provideThreadLocked(now);
    if (refusesCalls(viewLocked(now))) {
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
  std::lock_guard lock(mutex_);
  --blocked_;
}

}  // namespace gv::detail
