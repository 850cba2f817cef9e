// A client process dies while the robot serves it and is served by it.

#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <future>
#include <string>

#include <jxcommon/jxproxy.h>

#include "robotprocess.h"
#include "steadyclient.h"
#include "support/sanitized.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using testing::HasSubstr;

class ClientKilledInTheMiddleOfACall : public testing::Test {
 protected:
  ~ClientKilledInTheMiddleOfACall() override { observer->shutdown(); }

  /// Kills a client that waits in the robot, and in whose module the robot waits.
  void killOne(const std::string& name) {
    house::ChildProcess victim(TEST_CLIENT, {std::to_string(robot.port()), name});
    robot.waitUntilHolding(name);
    EXPECT_TRUE(observer->isModulePresent(name));
    auto nested = std::async(std::launch::async,
                             [&] { return errorOf([&] { proxy.call<int>("relay", name, 1); }); });
    victim.waitForLine("stuck");
    victim.kill(SIGKILL);
    const auto start = Clock::now();
    EXPECT_TRUE(becomesTrue([&] { return !observer->isModulePresent(name); }));
    const int took = millisecondsSince(start);
    EXPECT_LT(took, 5000);
    EXPECT_THAT(nested.get(), HasSubstr("was lost"));
    proxy.call<void>("release", name);
  }

  house::Watchdog watchdog{"clients killed", std::chrono::seconds(110)};
  RobotProcess robot;
  boost::shared_ptr<JX::JXBroker> observer = robot.join("observer");
  JX::JXProxy proxy{observer, "Robot"};
};

TEST_F(ClientKilledInTheMiddleOfACall, NothingIsLeftInTheRobotAndOtherClientsNeverNotice) {
  SteadyClient other(robot);
  ASSERT_TRUE(becomesTrue([&] { return other.calls() > 0; }));
  constexpr int warmUp = 4;
  constexpr int rounds = house::isSanitized ? 8 : 20;
  const int descriptors = robot.figures().descriptors;
  int threads = 0;
  for (int round = 0; round < rounds; ++round) {
    killOne("Victim" + std::to_string(round));
    if (round < warmUp) threads = std::max(threads, robot.figures().threads);
  }
  EXPECT_TRUE(becomesTrue([&] { return robot.figures().descriptors <= descriptors; }))
      << robot.figures().descriptors << " descriptors, " << descriptors << " at the start";
  // One more may have been started for a moment's load; a leak would be one a round.
  EXPECT_TRUE(becomesTrue([&] { return robot.figures().threads <= threads + 2; }))
      << robot.figures().threads << " threads, " << threads << " after the first rounds";
  EXPECT_GT(other.stop(), 0);
  EXPECT_EQ(errorOf([&] { proxy.call<int>("relay", "Unknown", 1); }),
            "JXProxy::JXProxy: Can't find service: Unknown");
  EXPECT_TRUE(robot.end());
}

}  // namespace
}  // namespace processes
