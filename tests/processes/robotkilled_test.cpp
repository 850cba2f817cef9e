// The robot dies while a client in this process waits for it.

#include <gmock/gmock.h>

#include <future>
#include <string>
#include <utility>

#include <jxcommon/jxbrokermanager.h>
#include <jxcommon/jxproxy.h>

#include "robotprocess.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using testing::AllOf;
using testing::HasSubstr;

constexpr int guardMs = 5000;

TEST(RobotKilledWhileAClientWaits, EachOperationFailsFastAndNamesWhatWasLost) {
  const house::Watchdog watchdog("a robot killed");
  RobotProcess robot;
  const auto client = robot.join("client");
  JX::JXProxy proxy(client, "Robot");
  auto waiting = std::async(std::launch::async, [&] {
    const std::string error = errorOf([&] { proxy.call<void>("hold", "the client"); });
    return std::pair(error, Clock::now());
  });
  robot.waitUntilHolding("the client");
  const auto killed = Clock::now();
  robot.kill();
  const auto [error, at] = waiting.get();
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(at - killed).count();
  RecordProperty("microsecondsToTheError", std::to_string(took));
  EXPECT_LT(took, guardMs * 1000);
  EXPECT_THAT(error, AllOf(HasSubstr("connection to " + robot.address()), HasSubstr("was lost")));

  const auto start = Clock::now();
  EXPECT_FALSE(errorOf([&] { proxy.call<int>("add", 1, 2); }).empty());
  EXPECT_EQ(errorOf([&] { JX::JXProxy(client, "Robot"); }), "Can't find service: Robot");
  EXPECT_THAT(errorOf([&] { client->isModulePresent("Robot"); }), HasSubstr("Can't list services"));
  EXPECT_EQ(errorOf([&] { robot.join("too late"); }), "Cannot connect to " + robot.address());
  EXPECT_FALSE(JX::JXBrokerManager::getInstance()->getBrokerByName("too late"));
  EXPECT_TRUE(becomesTrue([&] { return !client->isConnected(); }));
  EXPECT_TRUE(client->shutdown());
  EXPECT_LT(millisecondsSince(start), guardMs);
}

}  // namespace
}  // namespace processes
