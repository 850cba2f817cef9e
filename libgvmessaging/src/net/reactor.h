#pragma once

#include <functional>

#include <gvmessaging/api.h>

namespace asio {
class io_context;
}

namespace gv::net {

/// The one thread that serves all sockets of the process, and nothing else: no user code runs in
/// it, so the network is read whatever user code does. Begins with the first use, ends with the
/// process. In a child process after a fork it cannot be used: std::runtime_error.
class GVMESSAGING_API Reactor {
 public:
  Reactor() = delete;

  /// Where the sockets' operations are started.
  static asio::io_context& context();

  /// Runs @p task in the network's thread, in order. It must not block.
  static void post(std::function<void()> task);

  /// True in the network's thread.
  static bool isThisThread();
};

}  // namespace gv::net
