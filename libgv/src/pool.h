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
/// starts delayed tasks and adds threads where nobody announced a wait; a reporter, while there is
/// something to do that may block: warnings to log, ended threads to join; and services. Every
/// thread holds the pool, which so outlives those that `stop` could not wait for.
///
/// No function of a user is called, moved or destroyed under the mutex.
class Pool : public std::enable_shared_from_this<Pool> {
 public:
  explicit Pool(const EventLoop::Settings& settings);

  void submit(TaskPointer task, std::chrono::milliseconds delay);
  /// False, and the task is not taken: no thread can run it.
  bool trySubmit(TaskPointer task);
  void forgetDelayed(Task& task);
  void runService(std::string name, std::function<void()> body, std::function<void()> stop);
  bool isCurrent() const noexcept;
  bool hasRoom() const noexcept { return hasRoom_; }
  void addGuest() noexcept;
  void removeGuest() noexcept;
  void workerWillBlock() noexcept;
  void workerHasUnblocked() noexcept;
  EventLoop::Figures figures();
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
    Clock::time_point parkedAt;
  };
  struct Service final : Thread {
    std::function<void()> body;
    std::function<void()> stop;
  };
  using ThreadPointer = std::shared_ptr<Thread>;
  using WorkerPointer = std::shared_ptr<Worker>;
  using Lock = std::unique_lock<std::mutex>;

  // pool.cpp: tasks and workers
  bool accept(TaskPointer task, bool isRefusable);
  bool isLikelyTakenSoonLocked() const;
  WorkerPointer provideThreadLocked(Clock::time_point now);
  void startFirstThreadsLocked();
  void startWorkerLocked();
  void tryToStartWorkerLocked() noexcept;
  void work(const WorkerPointer& self);
  bool idleLocked(Lock& lock, const WorkerPointer& self);
  bool pollForTaskLocked(Lock& lock);
  bool parkLocked(Lock& lock, const WorkerPointer& self);
  void countWorkerLocked(int change) noexcept;
  void lookForRoomLocked() noexcept;
  PoolView viewLocked() const;
  PoolView timedViewLocked(Clock::time_point now);
  bool isForked() const noexcept;
  void checkNotForked() const;

  // poolthreads.cpp: their start and end
  void startMonitorLocked();
  void startThreadLocked(const std::string& name, const ThreadPointer& thread,
                         std::function<void()> body);
  void endThread(const ThreadPointer& thread);
  std::vector<TaskPointer> closeLocked();
  void stopServices();
  void joinThreads();
  bool waitForLocked(Lock& lock, const std::vector<ThreadPointer>& threads);

  // poolmonitor.cpp
  void monitor();
  void alertMonitorLocked(Clock::time_point when);
  Clock::time_point nextLookLocked(Clock::time_point now);
  bool refuseLocked(Lock& lock);
  void startReporterLocked();
  void report();
  void runChoresLocked(Lock& lock);
  std::string warningLocked(Clock::time_point now);
  void warnOfGuestsLocked();

  const EventLoop::Settings settings_;
  const unsigned forkGeneration_;

  std::mutex mutex_;                 // guards all below but the atomics
  std::atomic<bool> hasRoom_{true};  // for a guest
  TaskQueue queue_;
  /// Tasks are due, or it ends: read by the polling worker, hence on a cache line of its own.
  alignas(64) std::atomic<bool> hasWork_{false};
  alignas(
      64) std::vector<WorkerPointer> idle_;  // the last one has idled shortest and is woken first
  std::vector<ThreadPointer> live_;          // all that have not ended
  std::vector<ThreadPointer> ended_;         // of these, to be joined
  unsigned workers_ = 0;                     // guests included
  unsigned guests_ = 0;
  unsigned blocked_ = 0;
  unsigned arriving_ = 0;     // workers started, woken or polling, about to take a task
  bool isPolling_ = false;    // a worker is
  bool pollingPays_ = false;  // tasks of late came soon after the last one
  std::size_t starts_ = 0;    // of tasks, ever
  bool isClosing_ = false;
  std::condition_variable threadEnded_;

  std::condition_variable monitorWake_;
  ThreadPointer monitor_;
  Clock::time_point monitorWakeAt_;  // past while it is awake
  std::size_t startsSeen_ = 0;       // by it
  Clock::time_point lastProgress_;   // when it last saw that tasks had started

  std::vector<TaskPointer> refused_;  // which the monitor has to answer

  bool isReporting_ = false;    // the last reporter has not ended
  ThreadPointer lastReporter_;  // joined by the next one
  std::string warning_;         // for it to log
  Clock::time_point lastWarning_;
  Clock::time_point lastGuestWarning_;
  std::string startFailure_;  // why the last thread could not be started, until told
};

/// What to log of the exception being handled, which ended a function of a user's.
std::string describeException();
void logException(const char* operation) noexcept;

/// Runs a function of a user's; what it throws is logged as an error.
template <class F>
void runLogged(const char* operation, const F& function) noexcept {
  try {
    function();
  } catch (...) {
    logException(operation);
  }
}

}  // namespace gv::detail
