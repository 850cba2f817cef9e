#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include <gv/detail/task.h>

namespace gv::detail {

using Clock = std::chrono::steady_clock;

/// The tasks of a pool that have not started: those due, in order, and those with a delay. Not
/// locked: its owner does that. Runs and discards none, which is foreign code.
///
/// A due task that is dropped stays in its place, and counts, until it comes to the front or is
/// swept out, which happens of itself before they take more room than those that are left.
class GV_API TaskQueue {
 public:
  TaskQueue() = default;
  ~TaskQueue();
  TaskQueue(const TaskQueue&) = delete;
  TaskQueue& operator=(const TaskQueue&) = delete;

  void push(TaskPointer task, Clock::time_point now);
  void schedule(const TaskPointer& task, Clock::time_point due);
  /// The oldest due task, started; null when there is none.
  TaskPointer pop();
  /// Forgets a delayed task that was dropped, if it is still there.
  void forgetDelayed(Task& task);
  /// Moves tasks whose delay is over among those due; returns how many.
  std::size_t releaseDue(Clock::time_point now);
  /// Removes the due tasks that can be refused; the caller refuses them.
  std::vector<TaskPointer> takeRefusable();
  /// Removes everything; the caller discards it.
  std::vector<TaskPointer> takeAll();

  /// Removes the dropped ones.
  void sweep();

  /// Number of tasks due.
  std::size_t size() const noexcept { return size_; }
  /// Number of tasks with a delay that runs.
  std::size_t delayedSize() const noexcept { return delayed_.size(); }
  /// When the oldest task due became so.
  std::optional<Clock::time_point> oldest();
  /// When the next delay is over.
  std::optional<Clock::time_point> nextDue() const;

 private:
  void append(TaskPointer task, Clock::time_point now);
  TaskPointer takeFront();

  TaskPointer front_;
  Task* back_ = nullptr;
  std::size_t size_ = 0;
  std::size_t sweepAt_ = 64;
  DelayedTasks delayed_;
};

}  // namespace gv::detail
