#pragma once

#include <chrono>
#include <string>

namespace house {

/// A limit on the wall time of one test: when it is still alive after `limit`, it prints `what`
/// and aborts the process, so that a hang shows its stacks instead of a silent time-out.
/// Construct it first in the test.
class Watchdog {
 public:
  explicit Watchdog(std::string what,
                    std::chrono::milliseconds limit = std::chrono::milliseconds(60000));
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  struct State;
  State* state_;
};

}  // namespace house
