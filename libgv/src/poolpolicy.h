#pragma once

#include <chrono>
#include <cstddef>

#include <gv/api.h>

// When a pool grows, shrinks, warns and refuses: pure functions of what it looks like.

namespace gv::detail {

/// A pool at one moment.
struct PoolView {
  unsigned minThreads = 1;
  unsigned maxThreads = 1;
  unsigned threads = 0;                      // all of them, guests included
  unsigned guests = 0;                       // of these, threads of others that run calls
  unsigned blocked = 0;                      // of these, in an announced wait
  unsigned arriving = 0;                     // of these, started or woken, and about to take a task
  std::size_t queued = 0;                    // tasks due, not started
  std::chrono::milliseconds longestWait{0};  // of the oldest of these
  std::chrono::milliseconds sinceLastStart{0};  // since any task was started
  std::chrono::milliseconds growAfter{10};
};

/// True when a task waits for which no thread is on its way, so that an idle one must be woken.
GV_API bool needsThread(const PoolView& view);

/// True when such a task gets a new thread without delay (there being no idle one): while fewer
/// than the minimum of threads can run, because they never started or said that they wait.
GV_API bool growsAtOnce(const PoolView& view);

/// True when a new thread is due because tasks wait although nobody said so: nothing starts any
/// more, or what starts does not keep up.
GV_API bool growsWhenStalled(const PoolView& view);

/// True when tasks queue at the ceiling for long enough to tell the user.
GV_API bool warnsOfCeiling(const PoolView& view);

/// True when incoming calls are refused: no thread can run, and none may be added.
GV_API bool refusesCalls(const PoolView& view);

/// True when a thread of another owner may run a call. That one exceeds the ceiling while threads
/// are busy rather than blocked: those run on, and their own callers must be able to ask for it.
/// But guests alone stay within the ceiling.
GV_API bool admitsGuest(const PoolView& view);

/// True when a thread that has idled for long is one too many.
GV_API bool mayRetire(const PoolView& view);

}  // namespace gv::detail
