#include "src/taskqueue.h"

#include <algorithm>
#include <utility>

namespace gv::detail {

TaskQueue::~TaskQueue() {
  // One by one: a chain that destroys itself would recurse.
  while (takeFront()) {
  }
}

void TaskQueue::append(TaskPointer task, Clock::time_point now) {
  task->queuedAt_ = now;
  Task* const added = task.get();
  (back_ ? back_->next_ : front_) = std::move(task);
  back_ = added;
  ++size_;
}

void TaskQueue::sweep() {
  for (std::size_t left = size_; left > 0; --left) {
    TaskPointer task = takeFront();
    if (task->state_ != Task::State::Queued) continue;
    const auto queuedAt = task->queuedAt_;
    append(std::move(task), queuedAt);
  }
  sweepAt_ = std::max<std::size_t>(64, 2 * size_);
}

TaskPointer TaskQueue::takeFront() {
  TaskPointer taken = std::move(front_);
  if (!taken) return nullptr;
  front_ = std::move(taken->next_);
  if (!front_) back_ = nullptr;
  --size_;
  return taken;
}

void TaskQueue::push(TaskPointer task, Clock::time_point now) {
  task->state_.store(Task::State::Queued, std::memory_order_relaxed);
  append(std::move(task), now);
  if (size_ >= sweepAt_) sweep();
}

void TaskQueue::schedule(const TaskPointer& task, Clock::time_point due) {
  task->delayedAt_ = delayed_.emplace(due, task);
  task->state_ = Task::State::Delayed;
}

TaskPointer TaskQueue::pop() {
  while (TaskPointer task = takeFront()) {
    if (task->move(Task::State::Queued, Task::State::Started)) return task;
  }
  return nullptr;
}

void TaskQueue::forgetDelayed(Task& task) {
  if (task.delayedAt_ == delayed_.end()) return;
  delayed_.erase(task.delayedAt_);
  task.delayedAt_ = delayed_.end();
}

std::size_t TaskQueue::releaseDue(Clock::time_point now) {
  std::size_t released = 0;
  while (!delayed_.empty() && delayed_.begin()->first <= now) {
    const TaskPointer task = std::move(delayed_.begin()->second);
    delayed_.erase(delayed_.begin());
    task->delayedAt_ = delayed_.end();
    if (!task->move(Task::State::Delayed, Task::State::Queued)) continue;
    append(task, now);
    ++released;
  }
  return released;
}

std::vector<TaskPointer> TaskQueue::takeRefusable() {
  std::vector<TaskPointer> taken;
  for (std::size_t left = size_; left > 0; --left) {
    TaskPointer task = takeFront();
    if (task->isRefusable() && task->move(Task::State::Queued, Task::State::Dropped)) {
      taken.push_back(std::move(task));
      continue;
    }
    const auto queuedAt = task->queuedAt_;
    append(std::move(task), queuedAt);
  }
  return taken;
}

std::vector<TaskPointer> TaskQueue::takeAll() {
  std::vector<TaskPointer> taken;
  while (TaskPointer task = takeFront()) {
    if (task->move(Task::State::Queued, Task::State::Dropped)) taken.push_back(std::move(task));
  }
  for (auto& [due, task] : delayed_) {
    task->delayedAt_ = delayed_.end();
    if (task->move(Task::State::Delayed, Task::State::Dropped)) taken.push_back(task);
  }
  delayed_.clear();
  return taken;
}

std::optional<Clock::time_point> TaskQueue::oldest() {
  while (front_ && front_->state_ == Task::State::Dropped) takeFront();
  if (!front_) return std::nullopt;
  return front_->queuedAt_;
}

std::optional<Clock::time_point> TaskQueue::nextDue() const {
  if (delayed_.empty()) return std::nullopt;
  return delayed_.begin()->first;
}

}  // namespace gv::detail
