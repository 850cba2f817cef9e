#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include <gv/api.h>

namespace gv::detail {

class Pool;
struct Task;

using TaskPointer = std::shared_ptr<Task>;
using Clock = std::chrono::steady_clock;

/// One posted function. All but `pool` is guarded by the pool's mutex until the task has started,
/// and its thread's own then.
struct Task {
  enum class State { New, Delayed, Queued, Started, Dropped };

  std::function<void()> function;
  std::function<void()> refuse;  // empty: is never refused
  std::weak_ptr<Pool> pool;
  State state = State::New;
  Clock::time_point queuedAt;
  std::multimap<Clock::time_point, TaskPointer>::iterator delayedAt;
};

/// The tasks of a pool that have not started: those due, in order, and those with a delay. Not
/// locked: its owner does that. Destroys no task's functions, which are foreign code: what is
/// removed is handed out.
class GV_API TaskQueue {
 public:
  void push(const TaskPointer& task, Clock::time_point now);
  void schedule(const TaskPointer& task, Clock::time_point due);
  /// The oldest due task, started; null when there is none.
  TaskPointer pop();
  /// Removes a task; false when it has started or was removed before.
  bool remove(Task& task);
  /// Moves tasks whose delay is over among those due; returns how many.
  std::size_t releaseDue(Clock::time_point now);
  /// Removes the due tasks that can be refused.
  std::vector<TaskPointer> takeRefusable();
  /// Removes everything.
  std::vector<TaskPointer> takeAll();

  /// Number of tasks due.
  std::size_t size() const { return due_.size() - removed_; }
  /// When the oldest task due became so.
  std::optional<Clock::time_point> oldest() const;
  /// When the next delay is over.
  std::optional<Clock::time_point> nextDue() const;

 private:
  void skipRemoved();

  std::deque<TaskPointer> due_;  // removed ones stay until they come to the front
  std::size_t removed_ = 0;      // how many of these; the front is never one
  std::multimap<Clock::time_point, TaskPointer> delayed_;
};

}  // namespace gv::detail
