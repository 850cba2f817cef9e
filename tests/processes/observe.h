#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

namespace processes {

/// What a process holds.
struct Figures {
  int descriptors = 0;
  int threads = 0;
  long residentKiB = 0;
  long mostResidentKiB = 0;  // ever
};

Figures figuresOf(pid_t process);

/// What a process has used of the processors; in steps of the system's clock, 10 ms as a rule.
std::chrono::milliseconds processorTimeOf(pid_t process);

/// Waits until what is out of this process's hands has become true; false when it has not within
/// `guard`, which is a failure.
[[nodiscard]] bool becomesTrue(const std::function<bool()>& condition,
                               std::chrono::milliseconds guard = std::chrono::seconds(20));

/// The first address of a line that test_peer wrote.
std::string urlIn(const std::string& line);
/// Its port.
int portIn(const std::string& line);

using Clock = std::chrono::steady_clock;

inline int millisecondsSince(Clock::time_point start) {
  return static_cast<int>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

}  // namespace processes
