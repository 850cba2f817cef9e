#include <pthread.h>

#include <algorithm>
#include <utility>

#include "src/pool.h"

namespace gv::detail {
namespace {

void nameThisThread(const std::string& name) {
  const std::string shortened = name.substr(0, 15);  // the kernel's limit
#ifdef __APPLE__
  pthread_setname_np(shortened.c_str());
#else
  pthread_setname_np(pthread_self(), shortened.c_str());
#endif
}

}  // namespace

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
          if (!self->isForked()) self->endThread(thread);
        });
  } catch (...) {
    live_.pop_back();
    throw;
  }
}

void Pool::endThread(const ThreadPointer& thread) {
  const Lock lock(mutex_);
  std::erase(live_, thread);
  if (thread == lastReporter_) {
    // Joined by the next one, or at the end: another one would have to be started for it.
    isReporting_ = false;
  } else {
    ended_.push_back(thread);
  }
  if (!warning_.empty() || !ended_.empty()) alertMonitorLocked(Clock::now());
  threadEnded_.notify_all();
}

void Pool::runService(std::string name, std::function<void()> body, std::function<void()> stop) {
  checkNotForked();
  auto service = std::make_shared<Service>();
  service->body = std::move(body);
  service->stop = std::move(stop);
  const Lock lock(mutex_);
  if (isClosing_) return;
  startMonitorLocked();
  startThreadLocked(name, service, [raw = service.get()] {
    runLogged("runService", raw->body);
    raw->body = nullptr;
  });
}

void Pool::stop() {
  if (isForked()) return;
  std::vector<TaskPointer> dropped;
  {
    const Lock lock(mutex_);
    if (isClosing_) return;
    dropped = closeLocked();
  }
  for (const TaskPointer& task : dropped) task->discard();
  dropped.clear();
  stopServices();
  joinThreads();
}

std::vector<TaskPointer> Pool::closeLocked() {
  isClosing_ = true;
  hasWork_.store(true, std::memory_order_relaxed);
  auto dropped = queue_.takeAll();
  dropped.insert(dropped.end(), refused_.begin(), refused_.end());
  refused_.clear();
  for (const WorkerPointer& worker : idle_) worker->wake.notify_one();
  monitorWake_.notify_one();
  return dropped;
}

void Pool::stopServices() {
  std::vector<ThreadPointer> services;
  {
    const Lock lock(mutex_);
    for (const ThreadPointer& thread : live_) {
      if (dynamic_cast<Service*>(thread.get())) services.push_back(thread);
    }
  }
  // The last one started may rest on those before it.
  std::reverse(services.begin(), services.end());
  for (const ThreadPointer& service : services) {
    runLogged("runService", static_cast<Service&>(*service).stop);
  }
  Lock lock(mutex_);
  waitForLocked(lock, services);
}

/// False when some were still running after the time set. This thread is not waited for.
bool Pool::waitForLocked(Lock& lock, const std::vector<ThreadPointer>& threads) {
  const auto hasEnded = [this](const ThreadPointer& thread) {
    return thread->handle.get_id() == std::this_thread::get_id() ||
           std::find(live_.begin(), live_.end(), thread) == live_.end();
  };
  return threadEnded_.wait_for(lock, settings_.stopWithin, [&] {
    return std::all_of(threads.begin(), threads.end(), hasEnded);
  });
}

void Pool::joinThreads() {
  Lock lock(mutex_);
  waitForLocked(lock, std::vector<ThreadPointer>(live_));
  // What still runs keeps the pool alive and ends by itself, or with the process.
  for (const ThreadPointer& thread : live_) thread->handle.detach();
  auto ended = std::exchange(ended_, {});
  if (lastReporter_ && !isReporting_) ended.push_back(std::move(lastReporter_));
  lock.unlock();
  for (const ThreadPointer& thread : ended) thread->handle.join();
}

}  // namespace gv::detail
