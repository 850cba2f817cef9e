#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include <gvmessaging/api.h>

namespace gv::net {

/// Calls that wait for room at the ceiling of the event loop, for the leading reader and the pool
/// alike: whichever can first takes them. Runs none. Any thread.
class GVMESSAGING_API WaitingCalls {
 public:
  struct Call {
    std::function<void()> run;
    std::function<void()> refuse;
    std::shared_ptr<const std::atomic<bool>> isTaken;  // by one of the two
  };

  void add(Call call);
  bool areThere() const { return areThere_; }
  /// Whether more are to be refused than the last take() gave back.
  bool areLate() const { return areLate_; }

  /// Removes those that were taken, and those that have waited for longer than a call may where
  /// there is no room, which come into `refused`: some of them, so that nobody waits for long.
  /// Returns one to run, where there is room.
  std::function<void()> take(bool hasRoom, std::vector<Call>& refused);

 private:
  using Clock = std::chrono::steady_clock;
  struct Waiting {
    Call call;
    Clock::time_point until;
  };
  using Removed = std::vector<Waiting>;  // die after the unlock

  void sweepLocked(Removed& removed);

  std::atomic<bool> areThere_{false};
  std::atomic<bool> areLate_{false};

  std::mutex mutex_;             // guards what follows
  std::deque<Waiting> waiting_;  // the oldest first
  std::size_t sweepAt_ = 64;
};

}  // namespace gv::net
