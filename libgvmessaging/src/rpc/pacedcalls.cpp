#include "src/rpc/pacedcalls.h"

#include <iterator>
#include <utility>

namespace gv::rpc {
namespace {

constexpr std::chrono::milliseconds pace(5);
// As often as something is read from a peer that does not read.
constexpr std::chrono::milliseconds slowPace(50);
constexpr std::size_t portion = 64;

}  // namespace

bool PacedCalls::add(Call call) {
  const std::lock_guard lock(mutex_);
  if (hasEnded_) return true;
  if (!timer_) lookLaterLocked();
  if (!timer_) return false;
  calls_.push_back(std::move(call));
  return true;
}

/// There may be no timer: where the process exits, or lacks memory.
void PacedCalls::lookLaterLocked() {
  try {
    timer_ = net::Timer::start(pace, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->look();
    });
  } catch (const std::exception&) {
    timer_.reset();
  }
}

std::vector<PacedCalls::Call> PacedCalls::takeLocked(std::size_t most) {
  const auto end = calls_.begin() + static_cast<std::ptrdiff_t>(std::min(most, calls_.size()));
  std::vector<Call> taken(std::make_move_iterator(calls_.begin()), std::make_move_iterator(end));
  calls_.erase(calls_.begin(), end);
  return taken;
}

void PacedCalls::look() {
  Call holder;  // of the stream
  {
    const std::lock_guard lock(mutex_);
    if (calls_.empty()) return;
    holder = calls_.front();
  }
  const std::size_t pending = stream_.pendingBytes();
  const bool isSlow = pending > limits_.outputSlow;
  const auto now = Clock::now();
  std::vector<Call> going;
  bool areLetThrough = isSlow;
  {
    const std::lock_guard lock(mutex_);
    if (!isSlow) {
      going = takeLocked(portion);
    } else if (pending <= most() && now - lastSlow_ >= slowPace) {
      lastSlow_ = now;
      going = takeLocked(1);
    }
    timer_.reset();
    if (!calls_.empty()) lookLaterLocked();
    if (!timer_ && !calls_.empty()) {
      areLetThrough = true;
      for (Call& call : takeLocked(calls_.size())) going.push_back(std::move(call));
    }
  }
  for (const Call& call : going) call(areLetThrough);
}

void PacedCalls::end() {
  std::deque<Call> dropped;
  const std::lock_guard lock(mutex_);
  hasEnded_ = true;
  timer_.reset();
  dropped.swap(calls_);  // gone when the mutex is no longer held
}

}  // namespace gv::rpc
