// The robot dies while a client in this process waits for it.

#include <gmock/gmock.h>

#include <future>
#include <string>

#include <jxcommon/jxbrokermanager.h>
#include <jxcommon/jxproxy.h>

#include "robotprocess.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using testing::AllOf;
using testing::HasSubstr;

constexpr int guardMs = 5000;

class RobotKilledWhileAClientWaits : public testing::Test {
 protected:
  RobotKilledWhileAClientWaits() {
    auto waiting = std::async(std::launch::async, [this] {
      waitingError = errorOf([this] { proxy.call<void>("hold", "the client"); });
      errorAt = Clock::now();
    });
    robot.waitUntilHolding("the client");
    killedAt = Clock::now();
    robot.kill();
    waiting.get();
  }
  ~RobotKilledWhileAClientWaits() override { client->shutdown(); }

  house::Watchdog watchdog{"a robot killed"};
  RobotProcess robot;
  boost::shared_ptr<JX::JXBroker> client = robot.join("client");
  JX::JXProxy proxy{client, "Robot"};
  std::string waitingError;
  Clock::time_point killedAt;
  Clock::time_point errorAt;
};

TEST_F(RobotKilledWhileAClientWaits, TheCallFailsAtOnceAndNamesWhatWasLost) {
  const auto took =
      std::chrono::duration_cast<std::chrono::microseconds>(errorAt - killedAt).count();
  RecordProperty("microsecondsToTheError", std::to_string(took));
  EXPECT_LT(took, guardMs * 1000);
  EXPECT_THAT(waitingError,
              AllOf(HasSubstr("connection to " + robot.address()), HasSubstr("was lost")));
}

TEST_F(RobotKilledWhileAClientWaits, LaterCallsAndLookUpsFailFast) {
  const auto start = Clock::now();
  EXPECT_FALSE(errorOf([&] { proxy.call<int>("add", 1, 2); }).empty());
  EXPECT_EQ(errorOf([&] { JX::JXProxy(client, "Robot"); }), "Can't find service: Robot");
  EXPECT_THAT(errorOf([&] { client->isModulePresent("Robot"); }), HasSubstr("Can't list services"));
  EXPECT_LT(millisecondsSince(start), guardMs);
}

TEST_F(RobotKilledWhileAClientWaits, TheBrokerKnowsAndShutsDown) {
  EXPECT_TRUE(becomesTrue([&] { return !client->isConnected(); }));
  const auto start = Clock::now();
  EXPECT_TRUE(client->shutdown());
  EXPECT_LT(millisecondsSince(start), guardMs);
}

TEST_F(RobotKilledWhileAClientWaits, ALaterClientCannotConnect) {
  EXPECT_EQ(errorOf([&] { robot.join("too late"); }), "Cannot connect to " + robot.address());
  EXPECT_FALSE(JX::JXBrokerManager::getInstance()->getBrokerByName("too late"));
}

}  // namespace
}  // namespace processes
