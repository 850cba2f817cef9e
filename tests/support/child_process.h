#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace house {

/// Another program run by a test; destruction kills and reaps it. Its outputs are read only while
/// a function below runs; a wait that passes its guard throws std::runtime_error.
class ChildProcess {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /// How the program ended: `exitCode` when it returned, `signal` when a signal ended it.
  struct Ending {
    std::optional<int> exitCode;
    std::optional<int> signal;
  };

  /// `environment` ("NAME=value") is added to this process's.
  explicit ChildProcess(const std::string& program, const std::vector<std::string>& arguments = {},
                        const std::vector<std::string>& environment = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const;

  /// A line of the standard output that contains `part`.
  std::string waitForLine(const std::string& part, Milliseconds guard = std::chrono::seconds(20));

  std::string standardOutput();
  std::string standardError();

  /// False when it has ended already.
  bool kill(int signal);

  Ending waitForExit(Milliseconds guard = std::chrono::seconds(20));

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace house
