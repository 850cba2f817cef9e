#pragma once

#include <gtest/gtest.h>
#include <jxcommon/jxbroker.h>
#include <jxcommon/jxproxy.h>

#include <optional>
#include <string>

#include "support/child_process.h"
#include "support/watchdog.h"
#include "testmodule.h"

namespace JX {

using Broker = boost::shared_ptr<JXBroker>;

/// A proxy on a module of this process, or of another one.
class Calls : public ::testing::TestWithParam<bool> {
 protected:
  Calls() {
    if (GetParam()) {
      robot.emplace(JX_TEST_ROBOT);
      const std::string ready = robot->waitForLine("listening on ");
      broker = JXBroker::createBroker("far", "127.0.0.1", 0, "127.0.0.1",
                                      std::stoi(ready.substr(ready.rfind(' '))));
    } else {
      broker = JXBroker::createBroker("near", "127.0.0.1", 0, "", 0);
      createModule<TestModule>(broker, "Callee");
    }
    proxy = boost::make_shared<JXProxy>(broker, "Callee", 7, 9);
  }
  ~Calls() override { broker->shutdown(); }

  void waitUntilTheModuleIsGone() {
    try {
      while (true) proxy->call<std::string>("greet", "you");
    } catch (const JXError&) {
    }
  }

  const house::Watchdog watchdog{"a test of calls"};
  std::optional<house::ChildProcess> robot;
  Broker broker;
  boost::shared_ptr<JXProxy> proxy;
};

/// For INSTANTIATE_TEST_SUITE_P.
inline std::string nameOfPlace(const ::testing::TestParamInfo<bool>& which) {
  return which.param ? "ModuleOfAnotherProcess" : "ModuleOfThisProcess";
}

}  // namespace JX
