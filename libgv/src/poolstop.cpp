#include <algorithm>
#include <utility>

#include <gv/log.h>

#include "src/pool.h"

namespace gv::detail {

void Pool::runService(std::string name, std::function<void()> body, std::function<void()> stop) {
  checkNotForked();
  auto service = std::make_shared<Service>();
  service->body = std::move(body);
  service->stop = std::move(stop);
  std::lock_guard lock(mutex_);
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
    std::lock_guard lock(mutex_);
    if (isClosing_) return;
    dropped = closeLocked();
  }
  for (const TaskPointer& task : dropped) {
    task->function = nullptr;
    task->refuse = nullptr;
  }
  stopServices();
  joinThreads();
}

std::vector<TaskPointer> Pool::closeLocked() {
  isClosing_ = true;
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
    std::lock_guard lock(mutex_);
    for (const ThreadPointer& thread : live_) {
      if (dynamic_cast<Service*>(thread.get())) services.push_back(thread);
    }
  }
  // The last one started may rest on those before it.
  std::reverse(services.begin(), services.end());
  for (const ThreadPointer& service : services) {
    runLogged("runService", static_cast<Service&>(*service).stop);
  }
  std::unique_lock lock(mutex_);
  waitForLocked(lock, services);
}

/// False when some were still running after the time set. This thread is not waited for.
bool Pool::waitForLocked(std::unique_lock<std::mutex>& lock,
                         const std::vector<ThreadPointer>& threads) {
  const auto hasEnded = [this](const ThreadPointer& thread) {
    return thread->handle.get_id() == std::this_thread::get_id() ||
           std::find(live_.begin(), live_.end(), thread) == live_.end();
  };
  return threadEnded_.wait_for(lock, settings_.stopWithin, [&] {
    return std::all_of(threads.begin(), threads.end(), hasEnded);
  });
}

void Pool::joinThreads() {
  std::unique_lock lock(mutex_);
  waitForLocked(lock, std::vector<ThreadPointer>(live_));
  // What still runs keeps the pool alive and ends by itself, or with the process.
  for (const ThreadPointer& thread : live_) thread->handle.detach();
  auto ended = std::exchange(ended_, {});
  lock.unlock();
  for (const ThreadPointer& thread : ended) thread->handle.join();
}

}  // namespace gv::detail
