// Many threads of one client, each in calls that come back to the client.

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>

#include "robotprocess.h"
#include "scale.h"
#include "support/rounds.h"
#include "support/watchdog.h"

namespace processes {
namespace {

class Doubler : public JX::JXModule {
 public:
  Doubler(boost::shared_ptr<JX::JXBroker> broker, const std::string& name)
      : JX::JXModule(broker, name) {
    functionName("twice", getName(), "Twice a number.");
    bindMethod(JX::makeFunctor([](int number) { return 2 * number; }));
  }
};

int wrongAnswers(JX::JXProxy& proxy, int first, int count) {
  int wrong = 0;
  for (int number = first; number < first + count; ++number)
    if (proxy.call<int>("relay", "Doubler", number) != 2 * number) ++wrong;
  return wrong;
}

TEST(NestedCalls, EightThreadsOnOneProxyGetAllAnswersRight) {
  constexpr int threads = 8;
  const int calls = house::rounds(isSanitized ? 5000 : 2000);
  const house::Watchdog watchdog("nested calls", std::chrono::seconds(110));
  RobotProcess robot;
  const auto client = robot.join("client");
  JX::createModule<Doubler>(client, "Doubler");
  JX::JXProxy proxy(client, "Robot");

  const auto start = Clock::now();
  std::vector<std::future<int>> wrong;
  for (int thread = 0; thread < threads; ++thread)
    wrong.push_back(
        std::async(std::launch::async, wrongAnswers, std::ref(proxy), thread * 1'000'000, calls));
  for (auto& count : wrong) EXPECT_EQ(count.get(), 0);
  RecordProperty("callsPerThread", calls);
  RecordProperty("milliseconds", millisecondsSince(start));

  client->shutdown();
  EXPECT_TRUE(robot.end());
}

}  // namespace
}  // namespace processes
