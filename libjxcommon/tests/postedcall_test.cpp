// Posted calls: how they end, how they are followed and stopped, and what is left of them.

#include <gmock/gmock.h>

#include <signal.h>

#include <atomic>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <random>

#include "callsfixture.h"
#include "jxmodulecore_p.h"
#include "support/log_capture.h"
#include "support/rounds.h"

namespace JX {
namespace {

using testing::HasSubstr;

class PostedAnywhere : public Calls {};

INSTANTIATE_TEST_SUITE_P(A, PostedAnywhere, everywhere, nameOfPlace);

void waitUntilGone(JXProxy& proxy, int id) {
  // For a moment more than wait() the table knows a task that has ended.
  while (proxy.isRunning(id)) std::this_thread::yield();
}

TEST_P(PostedAnywhere, APostedCallEndsHoweverItsMethodDoes) {
  const struct {
    const char* method;
    JXValue argument;
  } rows[] = {{"greet", "Ada"}, {"fail", "as told"}, {"later", 5}, {"laterBroken", 5}};
  int before = 0;
  for (const auto& row : rows) {
    const int id = proxy->pCall(row.method, row.argument);
    EXPECT_GT(id, before) << "ids ascend";
    if (isElsewhere() && before == 0) {
      EXPECT_EQ(id, 1) << "the first one of its process";
    }
    before = id;
    EXPECT_FALSE(proxy->wait(id, 0)) << row.method;
    waitUntilGone(*proxy, id);
    EXPECT_FALSE(proxy->wait(id, 1000)) << "an id that is no more";
  }
  // What the method "pCall" of the module itself does.
  const int id = proxy->call<int>("pCall", "greet", "Ada");
  EXPECT_EQ(id, before + 1);
  EXPECT_FALSE(proxy->wait(id, -1));
}

TEST_P(PostedAnywhere, APostedCallRunsUntilItIsAskedToStop) {
  const int id = proxy->pCall("untilStopped");
  const int other = proxy->pCall("untilStopped");
  std::vector<std::thread> waiters;
  for (const int timeout :
       {0, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()})
    waiters.emplace_back([&, timeout] { EXPECT_FALSE(proxy->wait(id, timeout)); });
  EXPECT_TRUE(proxy->wait(id, 20)) << "it still runs";
  EXPECT_TRUE(proxy->isRunning(id));
  proxy->stop(id);
  for (auto& waiter : waiters) waiter.join();
  waitUntilGone(*proxy, id);
  EXPECT_TRUE(proxy->isRunning(other)) << "each has a flag of its own";
  proxy->stop(other);
  EXPECT_FALSE(proxy->wait(other, 0));
  EXPECT_EQ(proxy->call<int>("task"), -1) << "no posted call";
}

TEST_P(PostedAnywhere, APostedCallMayShutItsOwnBrokerDown) {
  try {
    proxy->pCall("shutDown");
  } catch (const JXError& error) {
    EXPECT_TRUE(isElsewhere()) << "the connection may go before the reply: " << error.description();
  }
  waitUntilTheModuleIsGone();
}

// ---- Of a module at hand

class PostedCalls : public ::testing::Test {
 protected:
  ~PostedCalls() override {
    module.reset();
    while (liveModules.live() > 0) std::this_thread::yield();  // those of calls that end
  }
  template <class F>
  void bind(const std::string& name, F function) {
    module->bind(name, makeFunctor(std::move(function)));
  }

  const house::Watchdog watchdog{"posted calls"};
  boost::shared_ptr<TestModule> module = boost::make_shared<TestModule>(nullptr, "Lonely");
  JXProxy proxy{module->asObject(), "Lonely"};
};

TEST_F(PostedCalls, AreKnownToTheirOwnThreadAlone) {
  std::atomic<int> inside{0}, elsewhere{0};
  std::atomic<bool> isPCalledElsewhere{true};
  bind("look", [&] {
    inside = module->isPCalled() ? module->getMethodID() : -2;
    std::thread([&] {
      elsewhere = module->getMethodID();
      isPCalledElsewhere = module->isPCalled();
    }).join();
  });
  const int id = proxy.pCall("look");
  EXPECT_FALSE(module->wait(id, 0));
  EXPECT_EQ(inside, id);
  EXPECT_EQ(elsewhere, -1);
  EXPECT_FALSE(isPCalledElsewhere);
  EXPECT_FALSE(module->isPCalled());
}

TEST_F(PostedCalls, RunOnTheEventLoopAlsoWhereTheirPostingIsQueued) {
  std::atomic<unsigned> thread{0};
  bind("note", [&] { thread = gv::os::gettid(); });
  const auto idOf = [&](const char* name) {
    return module->metaObject().findMethod(name)[0].uid();
  };
  const unsigned method = idOf("note");
  const std::vector<gv::AnyValue> none;
  const auto posted =
      module->metaCall(module->asObject(), idOf("__pCall"), gv::makeParameters(method, none),
                       gv::MetaCallType::Queued, {});
  EXPECT_TRUE(posted.isFinished()) << "it ran in this thread";
  EXPECT_FALSE(module->wait(posted.value().to<int>(), 0));
  EXPECT_NE(thread, gv::os::gettid());
}

TEST_F(PostedCalls, EndWithTheFutureThatTheirMethodGave) {
  std::optional<gv::Promise<int>> promise;
  bind("promise", [&] { return promise->future(); });
  const std::function<void()> endings[] = {[&] { promise->setValue(1); },
                                           [&] { promise->setError("an error"); },
                                           [&] { promise.reset(); }};
  for (const auto& ending : endings) {
    promise.emplace();
    const int id = proxy.pCall("promise");
    EXPECT_TRUE(module->wait(id, 20));
    EXPECT_TRUE(module->isRunning(id));
    ending();
    EXPECT_FALSE(module->wait(id, 0));
  }
}

TEST_F(PostedCalls, NeverWaitedForLeaveNoEntry) {
  bind("quick", [mark = house::LiveCounter::Mark(liveModules)](int) {});
  const int rounds = house::rounds(100'000);
  const int first = proxy.pCall("quick", 0);
  int last = first;
  for (int round = 1; round < rounds; ++round) last = proxy.pCall("quick", round);
  EXPECT_EQ(last - first, rounds - 1);
  for (int id = first; id <= last; ++id)
    while (module->isRunning(id)) std::this_thread::yield();
}

TEST_F(PostedCalls, CountAnewBehindTheLargestIdAndPassOverThoseInUse) {
  std::atomic<int>& last = JXModuleCorePrivate::_taskId;
  const int before = last;
  last = 1000;
  const int running = proxy.pCall("untilStopped");
  last = running - 1;
  EXPECT_EQ(proxy.pCall("greet", "you"), running + 1);
  last = std::numeric_limits<int>::max() - 1;
  EXPECT_EQ(proxy.pCall("greet", "you"), std::numeric_limits<int>::max());
  EXPECT_EQ(proxy.pCall("greet", "you"), 1);
  last = before + 1010;
  module->stop(running);
}

TEST_F(PostedCalls, OfArgumentsThatDoNotLetThemselvesBeCopiedAreErrors) {
  struct Fragile {
    Fragile() = default;
    Fragile(const Fragile&) { throw 42; }
    Fragile& operator=(const Fragile&) = default;
  };
  bind("take", [](const Fragile&) {});
  bind("own", [](const std::unique_ptr<int>&) {});
  EXPECT_EQ(errorOf([&] { proxy.pCall("take", Fragile()); }).toString(),
            "Lonely::take: unknown exception (../libjxcommon/src/jxproxy:371)");
  EXPECT_EQ(errorOf([&] { proxy.pCall("own", std::unique_ptr<int>()); }).line(), 371);
}

TEST_F(PostedCalls, OfFourThreadsEndOnceAndLeaveNothing) {
  bind("quick", [mark = house::LiveCounter::Mark(liveModules)](int) {});
  bind("soon", [](int n) { return gv::getEventLoop()->async([n] { return n; }); });
  std::vector<std::thread> posters;
  for (unsigned seed = 0; seed < 4; ++seed)
    posters.emplace_back([this, seed] {
      std::mt19937 random(seed);
      for (int round = 0; round < house::rounds(2500); ++round) {
        const int kind = static_cast<int>(random() % 3);
        const int id = kind == 0   ? proxy.pCall("untilStopped")
                       : kind == 1 ? proxy.pCall("quick", round)
                                   : proxy.pCall("soon", round);
        if (random() % 2 == 0) module->isRunning(id);
        if (kind == 0 || random() % 4 == 0) module->stop(id);
        if (random() % 4 != 0) {
          ASSERT_FALSE(module->wait(id, 0));
        }
        bool hasEnded = !module->isRunning(id);
        for (int look = 0; look < 3; ++look) {
          const bool isRunning = module->isRunning(id);
          ASSERT_FALSE(hasEnded && isRunning) << "ended, and runs again";
          hasEnded = !isRunning;
        }
      }
    });
  for (auto& poster : posters) poster.join();
}

TEST(PostedCallsOfOtherObjects, AreCallsOrWhatTheObjectMakesOfThem) {
  gv::DynamicObjectBuilder plain, posting;
  plain.advertiseMethod("half", [](int n) {
    if (n % 2 != 0) throw std::domain_error("odd");
    return n / 2;
  });
  std::atomic<bool> hasEnded{false};
  plain.advertiseMethod("later", [&](bool isBroken) {
    return gv::getEventLoop()->async(
        [&, isBroken] {
          if (isBroken) throw std::domain_error("too late");
          hasEnded = true;
        },
        std::chrono::milliseconds(20));
  });
  JXProxy called(plain.object(), "Plain");
  EXPECT_EQ(called.pCall("later", false), -1);
  EXPECT_TRUE(hasEnded);
  EXPECT_EQ(errorOf([&] { called.pCall("later", true); }).toString(),
            "Plain::later: too late (../libjxcommon/src/jxproxy:377)");
  EXPECT_EQ(called.pCall("half", 4), -1);
  EXPECT_EQ(errorOf([&] { called.pCall("half", 3); }).toString(),
            "Plain::half: odd (../libjxcommon/src/jxproxy:377)");
  posting.advertiseMethod("half", [](int) {});
  posting.advertiseMethod("__pCall", [](unsigned, const std::vector<gv::AnyValue>& arguments) {
    const int n = arguments.at(0).to<int>();
    if (n == 3) throw std::domain_error("never");
    return std::vector<std::string>(n, "two");
  });
  JXProxy posted(posting.object(), "Posting");
  EXPECT_EQ(errorOf([&] { posted.pCall("half", 3); }).toString(),
            "Posting::half: never (../libjxcommon/src/jxproxy:371)");
  EXPECT_EQ(errorOf([&] { posted.pCall("half", 2); }).toString(),
            "Posting::half: Unable to convert call result to target type: from "
            "list<string> to int32 (../libjxcommon/src/jxproxy:371)");
}

/// A robot whose event loop has four threads at most.
class SmallRobot : public ::testing::Test {
 protected:
  ~SmallRobot() override { broker->shutdown(); }

  void keepEveryThreadBusy() {
    for (int i = 0; i < 6; ++i) tasks.push_back(proxy.pCall("untilStopped"));
    while (proxy.call<int>("running") < 4) std::this_thread::yield();
  }

  const house::Watchdog watchdog{"a robot of four threads"};
  house::ChildProcess robot{
      JX_TEST_ROBOT, {}, {"GV_EVENTLOOP_MIN_THREADS=2", "GV_EVENTLOOP_MAX_THREADS=4"}};
  const std::string ready = robot.waitForLine("listening on ");
  const house::Link link{std::stoi(ready.substr(ready.rfind(' ')))};
  const Broker broker = JXBroker::createBroker("far", "127.0.0.1", 0, "127.0.0.1", link.port());
  JXProxy proxy{broker, "Callee"};
  std::vector<int> tasks;
};

TEST_F(SmallRobot, AnswersPostedCallsWhileEveryThreadIsBusy) {
  keepEveryThreadBusy();
  // Calls that wait take as many threads again, until the last one's time is over.
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i)
    waiters.emplace_back([&, i] { EXPECT_EQ(proxy.wait(tasks[i], i == 3 ? 100 : 0), i == 3); });
  std::vector<int> more = {proxy.call<int>("pCall", "untilStopped"), proxy.pCall("untilStopped")};
  waiters.back().join();
  waiters.pop_back();
  tasks.insert(tasks.end(), more.begin(), more.end());
  for (const int id : tasks) EXPECT_TRUE(proxy.isRunning(id));
  for (const int id : tasks) proxy.stop(id);
  for (auto& waiter : waiters) waiter.join();
  for (const int id : tasks) EXPECT_FALSE(proxy.wait(id, 0));
}

TEST_F(SmallRobot, RefusesCallsWhenEveryThreadIsBusyAndAsManyMoreWait) {
  keepEveryThreadBusy();
  std::vector<std::thread> waiters;
  for (int i = 0; i < 5; ++i)
    waiters.emplace_back([&] { errorOf([&] { proxy.wait(tasks[0], 0); }); });
  const JXError refused = errorOf([&] {
    while (true) proxy.isRunning(tasks[0]);
  });
  EXPECT_THAT(refused.description(), HasSubstr("GV_EVENTLOOP_MAX_THREADS (4)"));
  robot.kill(SIGKILL);
  for (auto& waiter : waiters) waiter.join();
}

TEST_F(SmallRobot, EndsAPostedCallForWhichEveryThreadWaits) {
  const int held = proxy.pCall("heldUntilAllWait");
  for (int i = 0; i < 4; ++i) tasks.push_back(proxy.pCall("waitFor", held));
  tasks.push_back(held);
  for (const int id : tasks)
    for (bool isRunning = true; isRunning;) {
      try {
        isRunning = proxy.isRunning(id);
      } catch (const JXError& error) {
        EXPECT_THAT(error.description(), HasSubstr("GV_EVENTLOOP_MAX_THREADS (4)"));
      }
    }
}

}  // namespace
}  // namespace JX
