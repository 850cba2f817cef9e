#pragma once

#include <gtest/gtest.h>
#include <jxcommon/jxbroker.h>
#include <jxcommon/jxproxy.h>

#include <optional>
#include <string>

#include "echoes.h"
#include "support/child_process.h"
#include "support/link.h"
#include "support/watchdog.h"
#include "testmodule.h"

namespace JX {

using Broker = boost::shared_ptr<JXBroker>;

/// Where the module is that a proxy calls.
enum class Place { SameBroker, OtherBroker, OtherProcess };

/// A proxy on the module "Callee", which is somewhere.
class Calls : public ::testing::TestWithParam<Place> {
 protected:
  Calls() {
    if (isElsewhere()) {
      robot.emplace(JX_TEST_ROBOT);
      const std::string ready = robot->waitForLine("listening on ");
      join(std::stoi(ready.substr(ready.rfind(' '))));
    } else {
      home = JXBroker::createBroker("home", "127.0.0.1", 0, "", 0);
      createModule<TestModule>(home, "Callee");
      createModule<Echoes>(home, "Echoes");
      if (GetParam() == Place::SameBroker)
        broker = home;
      else
        join(home->getPort());
    }
    proxy = boost::make_shared<JXProxy>(broker, "Callee", 7, 9);
  }
  ~Calls() override {
    broker->shutdown();
    if (home) home->shutdown();
  }

  void join(int port) {
    link.emplace(port);
    broker = JXBroker::createBroker("joined", "127.0.0.1", 0, "127.0.0.1", link->port());
  }

  static bool isElsewhere() { return GetParam() == Place::OtherProcess; }

  void withdrawTheModule() {
    proxy->call<void>("withdraw");
    waitUntilTheModuleIsGone();  // the news have to arrive, and calls that run to end
  }
  void waitUntilTheModuleIsGone() {
    try {
      while (true) proxy->call<std::string>("greet", "you");
    } catch (const JXError&) {
    }
    try {
      while (true) proxy->asObject();
    } catch (const std::runtime_error&) {
    }
  }

  const house::Watchdog watchdog{"a test of calls"};
  std::optional<house::ChildProcess> robot;
  std::optional<house::Link> link;  // to another broker
  Broker home;                      // the module's own, where it is of this process
  Broker broker;
  boost::shared_ptr<JXProxy> proxy;
};

inline const auto everywhere =
    ::testing::Values(Place::SameBroker, Place::OtherBroker, Place::OtherProcess);

/// For INSTANTIATE_TEST_SUITE_P.
inline std::string nameOfPlace(const ::testing::TestParamInfo<Place>& which) {
  return which.param == Place::SameBroker    ? "ModuleOfTheSameBroker"
         : which.param == Place::OtherBroker ? "ModuleOfAnotherBroker"
                                             : "ModuleOfAnotherProcess";
}

}  // namespace JX
