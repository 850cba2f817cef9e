#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include <gv/eventloop.h>

namespace gv {

/// Runs tasks one at a time, in the order they were posted, on the threads of an event loop. Tasks
/// must not throw.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
 public:
  explicit SerialQueue(EventLoop* loop) : loop_(loop) {}

  /// Throws what EventLoop::post does; the task is dropped then.
  void post(std::function<void()> task) {
    {
      const std::lock_guard lock(mutex_);
      tasks_.push_back(std::move(task));
      if (isRunning_) return;
      isRunning_ = true;
    }
    try {
      loop_->post([self = shared_from_this()] { self->drain(); });
    } catch (...) {
      std::deque<std::function<void()>> dropped;
      const std::lock_guard lock(mutex_);
      isRunning_ = false;
      dropped.swap(tasks_);
      throw;
    }
  }

  /// Whether the calling thread is running a task of this queue.
  bool isCurrent() const { return current() == this; }

 private:
  static const SerialQueue*& current() {
    thread_local const SerialQueue* queue = nullptr;
    return queue;
  }

  void drain() {
    const SerialQueue* outer = std::exchange(current(), this);
    while (const std::function<void()> task = next()) task();
    current() = outer;
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
