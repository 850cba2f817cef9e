// A process that ends with its broker, its module and its connection alive.

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include <jxcommon/jxproxy.h>

#include "robotprocess.h"
#include "support/watchdog.h"

namespace processes {
namespace {

TEST(AClientThatReturnsFromMain, EndsQuietlyAlsoWhenAStaticObjectShutsItsBrokerDown) {
  const house::Watchdog watchdog("a client that leaves");
  const RobotProcess robot;
  const auto other = robot.join("other");
  for (int round = 0; round < 5; ++round) {
    house::ChildProcess client(TEST_CLIENT, {std::to_string(robot.port()), "Leaver", "leave"});
    const auto ending = client.waitForExit();
    EXPECT_EQ(ending.exitCode, 0) << client.standardError();
    EXPECT_TRUE(becomesTrue([&] { return !other->isModulePresent("Leaver"); }));
  }
  other->shutdown();
}

}  // namespace
}  // namespace processes
