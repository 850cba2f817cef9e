#pragma once

#include <atomic>
#include <future>
#include <stdexcept>

#include <jxcommon/jxproxy.h>

#include "robotprocess.h"

namespace processes {

/// A client that calls all the while and must never see an error.
class SteadyClient {
 public:
  explicit SteadyClient(const RobotProcess& robot)
      : broker_(robot.join("steady")), calls_(std::async(std::launch::async, [this] {
          JX::JXProxy proxy(broker_, "Robot");
          for (; !isOver_; ++done_)
            if (proxy.call<int>("add", done_.load(), 1) != done_ + 1)
              throw std::runtime_error("a wrong sum");
          return done_.load();
        })) {}
  ~SteadyClient() {
    isOver_ = true;
    if (calls_.valid()) calls_.wait();
    broker_->shutdown();
  }
  SteadyClient(const SteadyClient&) = delete;
  SteadyClient& operator=(const SteadyClient&) = delete;

  int calls() const { return done_; }
  /// How many calls came back well; throws what ended them.
  int stop() {
    isOver_ = true;
    return calls_.get();
  }

 private:
  boost::shared_ptr<JX::JXBroker> broker_;
  std::atomic<bool> isOver_{false};
  std::atomic<int> done_{0};
  std::future<int> calls_;
};

}  // namespace processes
