#pragma once

#include <jxcommon/jxbroker.h>

#include <signal.h>

#include <functional>
#include <string>
#include <vector>

#include "observe.h"
#include "support/child_process.h"
#include "support/link.h"

namespace processes {

/// A running test_robot. Destruction kills it if it was not ended before.
class RobotProcess {
 public:
  /// The arguments are test_robot's; `environment` as house::ChildProcess takes it.
  explicit RobotProcess(const std::vector<std::string>& arguments = {},
                        const std::vector<std::string>& environment = {});

  /// Where clients reach it, through house::Link.
  int port() const { return link_.port(); }
  std::string address() const { return link_.url(); }
  Figures figures() const { return figuresOf(process_.pid()); }
  std::chrono::milliseconds processorTime() const { return processorTimeOf(process_.pid()); }

  /// A new child broker of the robot, in this process. The caller shuts it down.
  boost::shared_ptr<JX::JXBroker> join(const std::string& name) const;

  /// Waits until the robot's method "hold" waits with this key.
  void waitUntilHolding(const std::string& key) { waitForLine("holding " + key); }
  void waitForLine(const std::string& part) { process_.waitForLine(part); }
  std::string output() { return process_.standardOutput(); }
  std::string errors() { return process_.standardError(); }

  /// Kills it, or sends it another signal.
  void kill(int signal = SIGKILL) { process_.kill(signal); }
  /// Asks the robot to end; whether it did so in order, and its sanitizers found nothing.
  [[nodiscard]] bool end();

 private:
  house::ChildProcess process_;
  house::Link link_;
};

/// The description of the JXError that `call` throws. Throws std::runtime_error when it does not.
std::string errorOf(const std::function<void()>& call);

}  // namespace processes
