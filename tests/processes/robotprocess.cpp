#include "robotprocess.h"

#include <signal.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include <jxerror/jxerror.h>

namespace processes {
namespace {

int entriesOf(const std::string& folder) {
  const std::filesystem::directory_iterator entries(folder);
  return static_cast<int>(std::distance(begin(entries), end(entries)));
}

long residentKiBOf(const std::string& process) {
  std::ifstream status(process + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  throw std::runtime_error("no VmRSS of " + process);
}

}  // namespace

RobotProcess::RobotProcess() : process_(TEST_ROBOT) {
  const std::string line = process_.waitForLine("listening on tcp://127.0.0.1:");
  address_ = line.substr(line.find("tcp://"));
  port_ = std::stoi(address_.substr(address_.rfind(':') + 1));
}

Figures RobotProcess::figures() const {
  const std::string process = "/proc/" + std::to_string(process_.pid());
  return {entriesOf(process + "/fd"), entriesOf(process + "/task"), residentKiBOf(process)};
}

boost::shared_ptr<JX::JXBroker> RobotProcess::join(const std::string& name) const {
  return JX::JXBroker::createBroker(name, "127.0.0.1", 0, "127.0.0.1", port_, 0, "", true);
}

void RobotProcess::kill() {
  process_.kill(SIGKILL);
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

bool becomesTrue(const std::function<bool()>& condition, std::chrono::milliseconds guard) {
  const auto end = Clock::now() + guard;
  while (!condition()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace processes
