#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace house {

/// Another program run by a test, its two outputs read through pipes. Destruction kills the
/// program if it still runs and reaps it: no process or descriptor is left behind. The outputs are
/// read only while a function below runs. Used from one thread.
class ChildProcess {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /// How the program ended: `exitCode` when it returned, `signal` when a signal ended it.
  struct Ending {
    std::optional<int> exitCode;
    std::optional<int> signal;
  };

  /// Starts `program` with `arguments` (its own name not among them) and, added to this process's
  /// environment, `environment` ("NAME=value"). Throws std::runtime_error when it cannot start.
  explicit ChildProcess(const std::string& program, const std::vector<std::string>& arguments = {},
                        const std::vector<std::string>& environment = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const;

  /// Waits for a line of the standard output that contains `part` and returns it. Throws
  /// std::runtime_error with the output so far when the program ends, or `guard` passes, first.
  std::string waitForLine(const std::string& part, Milliseconds guard = std::chrono::seconds(20));

  /// What was written so far.
  std::string standardOutput();
  std::string standardError();

  /// Sends a signal to the program; false when it has ended already.
  bool kill(int signal);

  /// Waits until the program has ended and takes in what it wrote. Throws std::runtime_error when
  /// `guard` passes first.
  Ending waitForExit(Milliseconds guard = std::chrono::seconds(20));

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace house
