// What docs/calls.md shows, run: an arm, and a client that calls it in each way.

#include <iostream>

#include <gv/futureexception.h>
#include <jxcommon/jxbroker.h>
#include <jxerror/jxerror.h>

#include "arm.h"

namespace {

void callTyped(JX::JXProxy& arm) {
  const double before = arm.call<double>("turn", "elbow", 45);
  const auto pose = arm.call<std::map<std::string, double>>("pose");
  std::cout << "elbow from " << before << " to " << pose.at("elbow") << '\n';
}

void callUntyped(JX::JXProxy& arm) {
  std::vector<JX::JXValue> arguments = {"wrist", 30};
  const JX::JXValue before = arm.genericCall("turn", arguments);
  const JX::JXValue pose = arm.genericCall("pose", std::vector<JX::JXValue>{});
  std::cout << "wrist from " << before.toJson() << ", now " << pose.toJson() << '\n';
}

void post(JX::JXProxy& arm) {
  const int task = arm.pCall("wave", 1'000'000);
  while (arm.wait(task, 10)) {
    const int waved = arm.call<int>("waved");
    if (waved >= 3) arm.stop(task);
  }
  std::cout << "waved, and was stopped\n";
}

void notify(JX::JXProxy& arm) {
  std::pair<int, int> cache;
  arm.pCallNotify("onTouched", "shoulder", 2.5, JX::JXValue(), &cache);
  arm.pCallNotify("onTouched", "shoulder", 3.5, JX::JXValue(), &cache);
  std::cout << "found as a method of " << cache.second << " arguments\n";
}

void callWithinTime(JX::JXProxy& arm) {
  const gv::Future<void> waiting = arm.asObject().async<void>("waitForTouch", std::string("hand"));
  try {
    waiting.value(1);  // ms
  } catch (const gv::FutureException& error) {
    if (error.state() != gv::FutureException::State::Timeout) throw;
    std::cout << "not yet, so something else meanwhile\n";
  }
  arm.pCallNotify("onTouched", "hand", 1.5, JX::JXValue());
  waiting.value();
}

void failToCall(JX::JXProxy& arm) {
  try {
    arm.call<double>("turn", "elbow", 120);
  } catch (const JX::JXError& error) {
    std::cout << error.what() << '\n';
  }
}

void failInEachWay(JX::JXProxy& arm) {
  const auto print = [](auto call) {
    try {
      call();
    } catch (const JX::JXError& error) {
      std::cout << error.description() << '\n';
    }
  };
  print([&] { arm.call<void>("trun", "elbow", 1); });
  print([&] { arm.call<void>("turn", "elbow", "far"); });
  print([&] { arm.call<int>("turn", "elbow", 0.5), arm.call<int>("turn", "elbow", 0); });
  print([&] { arm.pCall("turn", "elbow"); });
}

}  // namespace

int main() {
  auto broker = JX::JXBroker::createBroker("robot", "127.0.0.1", 0, "", 0);
  JX::createModule<Arm>(broker, "Arm");
  {
    JX::JXProxy arm(broker, "Arm");
    callTyped(arm);
    callUntyped(arm);
    post(arm);
    notify(arm);
    callWithinTime(arm);
    failToCall(arm);
    failInEachWay(arm);
  }
  broker->shutdown();
}
