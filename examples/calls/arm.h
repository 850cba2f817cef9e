#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>

/// The module of docs/calls.md.
class Arm : public JX::JXModule {
 public:
  Arm(boost::shared_ptr<JX::JXBroker> broker, const std::string& name)
      : JX::JXModule(broker, name) {
    setModuleDescription("An arm of some joints.");

    functionName("turn", getName(), "Turns a joint.");
    addParam("joint", "Its name.");
    addParam("degrees", "-90 to 90.");
    setReturn("degrees", "How far it had been turned before.");
    bindMethod(JX::makeFunctor(this, &Arm::turn));

    functionName("pose", getName(), "All joints that were turned.");
    setReturn("joints", "Their degrees by name.");
    bindMethod(JX::makeFunctor(this, &Arm::pose));

    functionName("wave", getName(),
                 "Waves until it has done so often enough, or is asked to stop.");
    addParam("times", "How often.");
    bindMethod(JX::makeFunctor(this, &Arm::wave));

    functionName("waved", getName(), "How often it has waved.");
    setReturn("times", "That number.");
    bindMethod(JX::makeFunctor([this] { return waved_.load(); }));

    functionName("onTouched", getName(), "Tells the arm that something was touched.");
    addParam("sensor", "Where.");
    addParam("force", "In newtons.");
    bindMethod(JX::makeFunctor(this, &Arm::onTouched));

    functionName("waitForTouch", getName(), "Waits until the sensor was touched.");
    addParam("sensor", "Which.");
    bindMethod(JX::makeFunctor(this, &Arm::waitForTouch));
  }

  double turn(const std::string& joint, double degrees) {
    if (degrees < -90 || degrees > 90) throw std::out_of_range(joint + " turns from -90 to 90");
    const std::lock_guard lock(mutex_);
    return std::exchange(joints_[joint], degrees);
  }

  std::map<std::string, double> pose() {
    const std::lock_guard lock(mutex_);
    return joints_;
  }

  void wave(int times) {
    for (int i = 0; i < times && !isStopRequired(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      ++waved_;
    }
  }

  void onTouched(const std::string& sensor, const JX::JXValue& force) {
    turn(sensor, -force.toDouble());
    touched_.notify_all();
  }

  void waitForTouch(const std::string& sensor) {
    std::unique_lock lock(mutex_);
    touched_.wait(lock, [&] { return joints_.contains(sensor); });
  }

 private:
  std::atomic<int> waved_{0};
  std::condition_variable touched_;
  std::mutex mutex_;  // guards joints_
  std::map<std::string, double> joints_;
};
