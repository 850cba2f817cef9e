// Calls that come back to where they came from: from many threads, and very deep.

#include <gmock/gmock.h>

#include <future>
#include <string>
#include <vector>

#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>

#include "robotprocess.h"
#include "support/rounds.h"
#include "support/sanitized.h"
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
  const int calls = house::rounds(house::isSanitized ? 5000 : 2000);
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

/// Two robots that call each other, with so many threads at most, and their caller.
struct Pair {
  explicit Pair(int threads) : environment{"GV_EVENTLOOP_MAX_THREADS=" + std::to_string(threads)} {}
  ~Pair() {
    client->shutdown();
    EXPECT_TRUE(second.end());
    EXPECT_TRUE(first.end());
  }

  int descend(int levels, const std::string& manner) {
    JX::JXProxy proxy(client, "Robot");
    return proxy.call<int>("descend", levels, "Second", manner);
  }

  const house::Watchdog watchdog{"deep calls"};
  const std::vector<std::string> environment;
  RobotProcess first{{}, environment};
  RobotProcess second{{"Second", std::to_string(first.port())}, environment};
  boost::shared_ptr<JX::JXBroker> client = first.join("client");
};

const std::vector<std::string> manners = {"typed", "untyped", "posted", "in a callback"};

TEST(DeepCalls, BetweenTwoProcessesReachTheirEnd) {
  Pair robots(512);
  for (const std::string& manner : manners) EXPECT_EQ(robots.descend(200, manner), 200) << manner;
}

TEST(DeepCalls, BeyondTheThreadsEndInTheErrorThatNamesTheCeilingAndLeaveRoom) {
  Pair robots(16);
  for (const std::string& manner : manners) {
    std::string end = "a value";
    try {
      EXPECT_EQ(robots.descend(200, manner), 200) << manner;
    } catch (const JX::JXError& error) {
      end = error.description();
      EXPECT_THAT(end, testing::HasSubstr("GV_EVENTLOOP_MAX_THREADS (16)")) << manner;
    }
    RecordProperty(manner, end);
    EXPECT_EQ(robots.descend(10, manner), 10) << manner << ", after " << end;
  }
}

}  // namespace
}  // namespace processes
