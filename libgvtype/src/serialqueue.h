#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include <gv/eventloop.h>
#include <gv/future.h>
#include <gv/log.h>

namespace gv {

/// Runs tasks one at a time, in the order they were posted, on the threads of an event loop. What a
/// task throws is logged. After some tasks the queue goes behind what else the loop has to do; a
/// task that blocks holds up its own queue only.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
 public:
  explicit SerialQueue(EventLoop* loop) : loop_(loop) {}

  /// Throws what EventLoop::post does. Where the loop does not come to run them, for that reason or
  /// because it ends, all tasks are dropped.
  void post(std::function<void()> task) {
    {
      const std::lock_guard lock(mutex_);
      tasks_.push_back(std::move(task));
      if (isRunning_) return;
      isRunning_ = true;
    }
    schedule();
  }

  /// Whether the calling thread is running a task of this queue.
  bool isCurrent() const { return current() == this; }

 private:
  static const SerialQueue*& current() {
    thread_local const SerialQueue* queue = nullptr;
    return queue;
  }

  /// What the loop is given. Tasks may hold what owns this queue: kept by a loop that has ended,
  /// they would keep each other for ever.
  struct Turn {
    explicit Turn(std::shared_ptr<SerialQueue> itsQueue) : queue(std::move(itsQueue)) {}
    Turn(Turn&&) = default;
    ~Turn() {
      if (queue) queue->drop();
    }
    void operator()() { std::exchange(queue, nullptr)->drain(); }

    std::shared_ptr<SerialQueue> queue;
  };

  void schedule() { loop_->post(Turn(shared_from_this())); }

  void drop() {
    std::deque<std::function<void()>> dropped;  // die after the unlock
    const std::lock_guard lock(mutex_);
    isRunning_ = false;
    dropped.swap(tasks_);
  }

  void drain() {
    constexpr int atOnce = 64;
    const SerialQueue* outer = std::exchange(current(), this);
    int done = 0;
    while (done < atOnce && runNext()) ++done;
    current() = outer;
    if (done == atOnce) schedule();
  }

  /// False where there is nothing to run. The task dies before the next one starts.
  bool runNext() {
    const std::function<void()> task = next();
    try {
      if (task) task();
    } catch (...) {  // else the queue would stand for ever
      GV_LOG(log::Level::Error, "gv.type", "runNext",
             "a task failed: " + detail::currentError().text);
    }
    return task != nullptr;
  }

  std::function<void()> next() {
    const std::lock_guard lock(mutex_);
    if (tasks_.empty()) {
      isRunning_ = false;
      return {};
    }
    auto task = std::move(tasks_.front());
    tasks_.pop_front();
    return task;
  }

  EventLoop* const loop_;
  std::mutex mutex_;  // guards what follows
  std::deque<std::function<void()>> tasks_;
  bool isRunning_ = false;
};

}  // namespace gv
