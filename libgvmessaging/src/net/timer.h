#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace gv::net {

/// A task that runs once, later, in the network's thread, however busy the event loop is. Dropping
/// the handle cancels it. The task must not block.
class Timer {
 public:
  static std::shared_ptr<Timer> start(std::chrono::milliseconds delay, std::function<void()> task);
  virtual ~Timer() = default;
  /// The task does not begin after this returned in the network's thread; elsewhere it may be just
  /// beginning.
  virtual void cancel() = 0;
};

}  // namespace gv::net
