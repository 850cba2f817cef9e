#pragma once

#include <chrono>
#include <string>

namespace house {

/// Aborts the process when still alive after `limit` (in the long run, as many times as long):
/// a hang shows its stacks. Construct it first.
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
