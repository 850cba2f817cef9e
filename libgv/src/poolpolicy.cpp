#include "src/poolpolicy.h"

namespace gv::detail {
namespace {

// Queues that move are left to the threads there are, up to this multiple of growAfter: under a
// plain overload of the processor, more threads would only make it worse.
constexpr int patience = 10;

}  // namespace

bool needsThread(const PoolView& view) {
  return view.queued > view.arriving;
}

bool growsAtOnce(const PoolView& view) {
  return needsThread(view) && view.threads < view.maxThreads &&
         view.threads - view.blocked < view.minThreads;
}

bool growsWhenStalled(const PoolView& view) {
  if (!needsThread(view) || view.threads >= view.maxThreads) return false;
  if (view.longestWait < view.growAfter) return false;
  return view.sinceLastStart >= view.growAfter || view.longestWait >= patience * view.growAfter;
}

bool warnsOfCeiling(const PoolView& view) {
  return view.queued > 0 && view.threads >= view.maxThreads &&
         view.longestWait >= patience * view.growAfter;
}

bool refusesCalls(const PoolView& view) {
  return view.threads >= view.maxThreads && view.blocked >= view.threads;
}

bool admitsGuest(const PoolView& view) {
  return view.threads < view.maxThreads ||
         (view.blocked < view.threads && view.guests < view.maxThreads);
}

bool mayRetire(const PoolView& view) {
  return view.threads - view.blocked > view.minThreads;
}

}  // namespace gv::detail
