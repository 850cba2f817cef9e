#include "src/taskqueue.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace gv::detail {

void TaskQueue::push(const TaskPointer& task, Clock::time_point now) {
  due_.push_back(task);
  task->state = Task::State::Queued;
  task->queuedAt = now;
}

void TaskQueue::schedule(const TaskPointer& task, Clock::time_point due) {
  task->delayedAt = delayed_.emplace(due, task);
  task->state = Task::State::Delayed;
}

TaskPointer TaskQueue::pop() {
  if (due_.empty()) return nullptr;
  TaskPointer task = std::move(due_.front());
  due_.pop_front();
  task->state = Task::State::Started;
  skipRemoved();
  return task;
}

bool TaskQueue::remove(Task& task) {
  if (task.state == Task::State::Delayed) {
    delayed_.erase(task.delayedAt);
  } else if (task.state == Task::State::Queued) {
    ++removed_;
  } else {
    return false;
  }
  task.state = Task::State::Dropped;
  skipRemoved();
  return true;
}

void TaskQueue::skipRemoved() {
  while (!due_.empty() && due_.front()->state == Task::State::Dropped) {
    due_.pop_front();
    --removed_;
  }
}

std::size_t TaskQueue::releaseDue(Clock::time_point now) {
  const auto end = delayed_.upper_bound(now);
  const auto count = static_cast<std::size_t>(std::distance(delayed_.begin(), end));
  for (auto it = delayed_.begin(); it != end; ++it) push(it->second, now);
  delayed_.erase(delayed_.begin(), end);
  return count;
}

std::vector<TaskPointer> TaskQueue::takeRefusable() {
  std::vector<TaskPointer> taken;
  for (const TaskPointer& task : due_) {
    if (task->state == Task::State::Queued && task->refuse) taken.push_back(task);
  }
  for (const TaskPointer& task : taken) remove(*task);
  return taken;
}

std::vector<TaskPointer> TaskQueue::takeAll() {
  std::vector<TaskPointer> taken(due_.begin(), due_.end());
  for (const auto& [due, task] : delayed_) taken.push_back(task);
  due_.clear();
  delayed_.clear();
  removed_ = 0;
  for (const TaskPointer& task : taken) task->state = Task::State::Dropped;
  return taken;
}

std::optional<Clock::time_point> TaskQueue::oldest() const {
  if (due_.empty()) return std::nullopt;
  return due_.front()->queuedAt;
}

std::optional<Clock::time_point> TaskQueue::nextDue() const {
  if (delayed_.empty()) return std::nullopt;
  return delayed_.begin()->first;
}

}  // namespace gv::detail
