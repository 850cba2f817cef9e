#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include <gv/eventloop.h>

namespace gv {

/// Runs tasks one at a time, in the order they were posted, on the threads of an event loop.
class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
 public:
  explicit SerialQueue(EventLoop* loop) : loop_(loop) {}

  void post(std::function<void()> task) {
    {
      const std::lock_guard lock(mutex_);
      tasks_.push_back(std::move(task));
      if (isRunning_) return;
      isRunning_ = true;
    }
    loop_->post([self = shared_from_this()] { self->drain(); });
  }

 private:
  void drain() {
    while (true) {
      std::function<void()> task;
      {
        const std::lock_guard lock(mutex_);
        if (tasks_.empty()) {
          isRunning_ = false;
          return;
        }
        task = std::move(tasks_.front());
        tasks_.pop_front();
      }
      task();
    }
  }

  EventLoop* const loop_;
  std::mutex mutex_;  // guards what follows
  std::deque<std::function<void()>> tasks_;
  bool isRunning_ = false;
};

}  // namespace gv
