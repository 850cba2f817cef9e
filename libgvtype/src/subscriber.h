#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gv/future.h>
#include <gvtype/anyfunction.h>

#include "serialqueue.h"

namespace gv {

/// One handler on one signal.
///
/// It may be running in several threads when it is disconnected. Nobody waits for them: the last
/// one to leave settles the disconnection. Calls on the disconnecting thread's own stack do not
/// count, so that a handler can disconnect itself.
class Subscriber : public std::enable_shared_from_this<Subscriber> {
 public:
  /// With a queue the handler runs there, else in the thread that delivers.
  Subscriber(std::string signal, AnyFunction handler, std::shared_ptr<SerialQueue> queue);

  bool isQueued() const { return queue_ != nullptr; }
  /// Runs the handler unless it was disconnected. What it throws is logged.
  void run(std::span<const AnyReference> arguments);
  /// Queues the handler with arguments that own their values. Throws what EventLoop::post does.
  void post(GenericFunctionParameters arguments);
  /// Once only. Settles when the handler neither runs nor ever will.
  Future<void> disconnect();

 private:
  struct Disconnection {
    std::thread::id thread;
    Promise<void> settled;
  };

  bool enter();
  void leave();
  bool runsOutsideLocked(std::thread::id thread) const;

  const std::string signal_;
  const AnyFunction handler_;
  const std::shared_ptr<SerialQueue> queue_;

  std::mutex mutex_;                            // guards what follows
  std::vector<std::thread::id> running_;        // one entry a call
  std::optional<Disconnection> disconnection_;  // while calls in other threads go on
  bool isGone_ = false;
};

}  // namespace gv
