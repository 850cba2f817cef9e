#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gv/blocking.h>
#include <gv/eventloop.h>

#include "src/poolpolicy.h"
#include "src/taskqueue.h"

namespace gv::detail {

/// The threads and the queue behind an EventLoop: workers, which run tasks; the monitor, which
/// starts delayed tasks, adds threads where nobody announced a wait, joins threads that ended; and
/// services. Every thread holds the pool, which so outlives those that `stop` could not wait for.
///
/// No function of a user is called, moved or destroyed under the mutex.
class Pool : public std::enable_shared_from_this<Pool> {
 public:
  explicit Pool(const EventLoop::Settings& settings);

  /// False, and the task is not taken: it may be refused, and no thread can run it.
  bool submit(const TaskPointer& task, std::chrono::milliseconds delay, bool isRefusable);
  bool cancel(Task& task);
  void runService(std::string name, std::function<void()> body, std::function<void()> stop);
  bool isCurrent() const noexcept;
  EventLoop::Figures figures() const;
  unsigned maxThreads() const { return settings_.maxThreads; }

  /// Ends the pool: no task starts any more, services are stopped, threads joined as far as they
  /// end within the time set. Any thread, its own too. Idempotent.
  void stop();

 private:
  struct Thread {
    virtual ~Thread() = default;
    std::thread handle;
  };
  struct Worker final : Thread, BlockingObserver {
    explicit Worker(Pool& owner) : pool(owner) {}
    void willBlock() noexcept override { pool.workerWillBlock(); }
    void hasUnblocked() noexcept override { pool.workerHasUnblocked(); }

    Pool& pool;
    std::condition_variable wake;
    bool isWoken = false;
  };
  struct Service final : Thread {
    std::function<void()> body;
    std::function<void()> stop;
  };
  using ThreadPointer = std::shared_ptr<Thread>;
  using WorkerPointer = std::shared_ptr<Worker>;

  // pool.cpp: tasks and workers
  WorkerPointer provideThreadLocked(Clock::time_point now);
  void startWorkerLocked();
  void startMonitorLocked();
  void startThreadLocked(const std::string& name, const ThreadPointer& thread,
                         std::function<void()> body);
  void endThread(const ThreadPointer& thread);
  void work(const WorkerPointer& self);
  bool idleLocked(std::unique_lock<std::mutex>& lock, const WorkerPointer& self);
  void workerWillBlock() noexcept;
  void workerHasUnblocked() noexcept;
  PoolView viewLocked(Clock::time_point now) const;
  bool isForked() const noexcept;
  void checkNotForked() const;

  // poolmonitor.cpp
  void monitor();
  void alertMonitorLocked(Clock::time_point when);
  Clock::time_point nextLookLocked(Clock::time_point now) const;
  bool runChoresLocked(std::unique_lock<std::mutex>& lock);
  std::string warningLocked(Clock::time_point now);

  // poolstop.cpp
  std::vector<TaskPointer> closeLocked();
  void stopServices();
  void joinThreads();
  bool waitForLocked(std::unique_lock<std::mutex>& lock, const std::vector<ThreadPointer>& threads);

  const EventLoop::Settings settings_;
  const unsigned forkGeneration_;

  mutable std::mutex mutex_;  // guards all below
  TaskQueue queue_;
  std::vector<WorkerPointer> idle_;   // the last one has idled shortest and is woken first
  std::vector<ThreadPointer> live_;   // workers, services and the monitor
  std::vector<ThreadPointer> ended_;  // of these, to be joined
  std::vector<TaskPointer> refused_;  // whose `refuse` the monitor has to run
  unsigned workers_ = 0;
  unsigned blocked_ = 0;
  unsigned arriving_ = 0;
  Clock::time_point lastStart_;  // of a task
  bool isClosing_ = false;
  std::condition_variable threadEnded_;

  std::condition_variable monitorWake_;
  ThreadPointer monitor_;
  Clock::time_point monitorWakeAt_;  // past while it is awake
  Clock::time_point lastWarning_;
  std::string startFailure_;  // why the last thread could not be started, until told
};

/// Runs a function of a user's; what it throws is logged as an error.
void runLogged(const char* operation, const std::function<void()>& function) noexcept;

}  // namespace gv::detail
