#include "robotprocess.h"

#include <iostream>
#include <stdexcept>

#include <jxerror/jxerror.h>

namespace processes {

RobotProcess::RobotProcess(const std::vector<std::string>& arguments,
                           const std::vector<std::string>& environment)
    : process_(TEST_ROBOT, arguments, environment),
      link_(portIn(process_.waitForLine("listening on tcp://127.0.0.1:"))) {}

boost::shared_ptr<JX::JXBroker> RobotProcess::join(const std::string& name) const {
  return JX::JXBroker::createBroker(name, "127.0.0.1", 0, "127.0.0.1", port(), 0, "", true);
}

bool RobotProcess::end() {
  process_.kill(SIGTERM);
  const bool isGood = process_.waitForExit().exitCode == 0;
  if (!isGood) std::cerr << "the robot's standard error:\n" << process_.standardError();
  return isGood;
}

std::string errorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const JX::JXError& error) {
    return error.description();
  }
  throw std::runtime_error("no error");
}

}  // namespace processes
