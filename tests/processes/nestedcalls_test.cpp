// Many threads of one client, each in calls that come back to the client.

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include <gv/os.h>
#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>

#include "robotprocess.h"
#include "scale.h"
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

/// The long run asks for more.
int callsPerThread() {
  const std::string asked = gv::os::getenv("PROCESS_TEST_CALLS");
  if (isSanitized) return 500;
  return asked.empty() ? 2000 : std::stoi(asked);
}

int wrongAnswers(JX::JXProxy& proxy, int first, int count) {
  int wrong = 0;
  for (int number = first; number < first + count; ++number)
    if (proxy.call<int>("relay", "Doubler", number) != 2 * number) ++wrong;
  return wrong;
}

TEST(NestedCalls, EightThreadsOnOneProxyGetAllAnswersRight) {
  constexpr int threads = 8;
  const int calls = callsPerThread();
  const house::Watchdog watchdog("nested calls", std::chrono::seconds(calls > 2000 ? 500 : 110));
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
