#pragma once

#include <functional>
#include <memory>

#include <gvmessaging/api.h>

#include "src/net/stream.h"

namespace asio {
class io_context;
}

namespace gv::net {

/// The one thread that keeps house for all sockets of the process: it connects, accepts, runs
/// timers and tells of ends. Readers read. No user code runs in it: synchronous callbacks of what
/// it settles run in the thread that leads the readers. Begins with the first use, ends with the
/// process. In a child process after a fork, and once the process exits, it cannot be
/// used: std::runtime_error.
class GVMESSAGING_API Reactor {
 public:
  Reactor() = delete;

  /// Where the sockets' operations are started.
  static asio::io_context& context();

  /// Runs @p task in the network's thread, in order. It must not block.
  static void post(std::function<void()> task);

  /// As post, also while the process exits: for what ends something.
  static void postEnd(std::function<void()> task);

  /// Closes the stream when the process exits, and then waits for its untrack(). Both in the
  /// network's thread.
  static void track(const std::shared_ptr<Stream>& stream);
  static void untrack(const Stream* stream);

  /// True in a child process forked from one that used the network.
  static bool isForked();

  /// True in the network's thread.
  static bool isThisThread();
};

}  // namespace gv::net
