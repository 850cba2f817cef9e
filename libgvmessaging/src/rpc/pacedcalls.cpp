#include "src/rpc/pacedcalls.h"

#include <utility>
#include <vector>

namespace gv::rpc {
namespace {

// As often as a request is read from a peer that does not read.
constexpr std::chrono::milliseconds slowPace(50);
constexpr std::chrono::milliseconds pace(1);
// What these reply is seen before more are let go.
constexpr std::size_t portion = 16;

}  // namespace

void PacedCalls::add(Call call) {
  const std::lock_guard lock(mutex_);
  if (hasEnded_) return;
  calls_.push_back(std::move(call));
  if (!timer_) waitLocked(slowPace);
}

void PacedCalls::waitLocked(std::chrono::milliseconds time) {
  timer_ = net::Timer::start(time, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->letGo();
  });
}

void PacedCalls::letGo() {
  std::vector<Call> going;
  {
    const std::lock_guard lock(mutex_);
    if (calls_.empty()) return;
    going.push_back(std::move(calls_.front()));
    calls_.pop_front();
  }
  const bool isStillSlow = isSlow();
  {
    const std::lock_guard lock(mutex_);
    while (!isStillSlow && !calls_.empty() && going.size() < portion) {
      going.push_back(std::move(calls_.front()));
      calls_.pop_front();
    }
    timer_.reset();
    if (!calls_.empty()) waitLocked(isStillSlow ? slowPace : pace);
  }
  for (const Call& call : going) call();
}

void PacedCalls::end() {
  std::deque<Call> dropped;
  const std::lock_guard lock(mutex_);
  hasEnded_ = true;
  timer_.reset();
  dropped.swap(calls_);  // gone when the mutex is no longer held
}

}  // namespace gv::rpc
