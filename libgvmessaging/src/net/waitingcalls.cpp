#include "src/net/waitingcalls.h"

#include <algorithm>
#include <utility>

namespace gv::net {
namespace {

constexpr std::chrono::seconds longestWait(1);

// A refusal is a message, and a line of the log maybe.
constexpr std::size_t mostRefused = 32;

}  // namespace

void WaitingCalls::add(Call call) {
  Removed removed;
  const auto until = Clock::now() + longestWait;
  const std::lock_guard lock(mutex_);
  if (waiting_.size() >= sweepAt_) sweepLocked(removed);
  waiting_.push_back({std::move(call), until});
  areThere_ = true;
}

/// Those that the pool has taken, before they take more room than those that are left.
void WaitingCalls::sweepLocked(Removed& removed) {
  const auto taken = std::stable_partition(waiting_.begin(), waiting_.end(),
                                           [](const Waiting& each) { return !*each.call.isTaken; });
  removed.assign(std::move_iterator(taken), std::move_iterator(waiting_.end()));
  waiting_.erase(taken, waiting_.end());
  sweepAt_ = std::max<std::size_t>(64, 2 * waiting_.size());
}

std::function<void()> WaitingCalls::take(bool hasRoom, std::vector<Call>& refused) {
  std::function<void()> next;
  Removed removed;
  const auto now = Clock::now();
  const std::lock_guard lock(mutex_);
  while (!waiting_.empty() && !next && refused.size() < mostRefused) {
    Waiting& front = waiting_.front();
    const bool isTaken = *front.call.isTaken;
    if (!isTaken && !hasRoom && now < front.until) break;
    if (!isTaken && !hasRoom) {
      refused.push_back(std::move(front.call));
    } else {
      removed.push_back(std::move(front));
      if (!isTaken) next = std::move(removed.back().call.run);
    }
    waiting_.pop_front();
  }
  areThere_ = !waiting_.empty();
  areLate_ = refused.size() == mostRefused && areThere_;
  return next;
}

}  // namespace gv::net
