// Posted calls: how they end, how they are followed and stopped, and what is left of them.

#include <gmock/gmock.h>

#include <atomic>
#include <limits>
#include <random>

#include "callsfixture.h"
#include "support/log_capture.h"
#include "support/rounds.h"
#include "taskids.h"

namespace JX {
namespace {

using gv::log::Level;
using testing::HasSubstr;

class PostedAnywhere : public Calls {};

INSTANTIATE_TEST_SUITE_P(A, PostedAnywhere, ::testing::Bool(), nameOfPlace);

void waitUntilGone(JXProxy& proxy, int id) {
  // For a moment more than wait() the table knows a task that has ended.
  while (proxy.call<bool>("isRunning", id)) std::this_thread::yield();
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
    before = id;
    EXPECT_FALSE(proxy->call<bool>("wait", id, 0)) << row.method;
    waitUntilGone(*proxy, id);
    EXPECT_FALSE(proxy->call<bool>("wait", id, 1000)) << "an id that is no more";
  }
  // What the method "pCall" of the module itself does.
  const int id = proxy->call<int>("pCall", "greet", "Ada");
  EXPECT_EQ(id, before + 1);
  EXPECT_FALSE(proxy->call<bool>("wait", id, -1));
}

TEST_P(PostedAnywhere, APostedCallRunsUntilItIsAskedToStop) {
  const int id = proxy->pCall("untilStopped");
  const int other = proxy->pCall("untilStopped");
  std::vector<std::thread> waiters;
  for (const int timeout :
       {0, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()})
    waiters.emplace_back([&, timeout] { EXPECT_FALSE(proxy->call<bool>("wait", id, timeout)); });
  EXPECT_TRUE(proxy->call<bool>("wait", id, 20)) << "it still runs";
  EXPECT_TRUE(proxy->call<bool>("isRunning", id));
  proxy->call<void>("stop", id);
  for (auto& waiter : waiters) waiter.join();
  waitUntilGone(*proxy, id);
  EXPECT_TRUE(proxy->call<bool>("isRunning", other)) << "each has a flag of its own";
  proxy->call<void>("stop", other);
  EXPECT_FALSE(proxy->call<bool>("wait", other, 0));
  EXPECT_EQ(proxy->call<int>("task"), -1) << "no posted call";
}

TEST_P(PostedAnywhere, WhatCannotBePostedIsAnErrorWithItsPosition) {
  const JXError unknown = errorOf([&] { proxy->pCall("greet", 1, 2); });
  EXPECT_EQ(
      unknown.description(),
      "JXProxy(Callee).pcall Can't find single match for greet\n  Candidate(s):\n  greet(s)\n");
  EXPECT_EQ(unknown.line(), 355);
  const JXError nameless = errorOf([&] { proxy->call<int>("pCall"); });
  EXPECT_THAT(nameless.description(), HasSubstr("missing function name"));
  proxy->call<void>("withdraw");
  if (GetParam()) broker->shutdown();
  const JXError gone = errorOf([&] { proxy->pCall("greet", "Ada"); });
  EXPECT_EQ(gone.toString(), "Callee::greet: module destroyed (../libjxcommon/src/jxproxy:339)");
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
  const JXError unknown = errorOf([&] { module->_pCall(4711, {}); });
  EXPECT_EQ(unknown.toString(),
            "Lonely::_pCall: Cant find methodId #4711 on module:Lonely "
            "(../libjxcommon/src/jxmodulecore:595)");
}

TEST_F(PostedCalls, SayInTheLogWhatIsAskedOfThem) {
  gv::log::setLevel(Level::Verbose);
  bind("waitForItself", [&] { return module->wait(module->getMethodID(), 10); });
  const int id = proxy.pCall("untilStopped");
  const house::LogCapture log;
  module->stop(id);
  while (module->isRunning(id)) std::this_thread::yield();
  module->stop(id);
  module->wait(id, 0);
  const int itself = proxy.pCall("waitForItself");
  EXPECT_FALSE(module->wait(itself, 0));
  std::string told;
  for (const auto& record : log.records())
    if (record.category == "jxcommon.jxmodulecore")
      told += record.function + " " + std::to_string(static_cast<int>(record.level)) + " " +
              record.text + "\n";
  const std::string number = std::to_string(id);
  const std::string notFound = " 5 Cant stop task " + number + " because it is not found.\n";
  EXPECT_EQ(told, "stop 4 Lonely :Task " + number + " asked to stop\nstop" + notFound + "wait" +
                      notFound + "wait 3 Lonely :Task " + std::to_string(itself) +
                      " waits for its own end\n");
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

TEST(PostedCallsFromElsewhere, AreAnsweredWhileEveryThreadIsBusy) {
  const house::Watchdog watchdog("posting to a robot that is busy");
  house::ChildProcess robot(JX_TEST_ROBOT, {},
                            {"GV_EVENTLOOP_MIN_THREADS=2", "GV_EVENTLOOP_MAX_THREADS=4"});
  const std::string ready = robot.waitForLine("listening on ");
  const Broker broker = JXBroker::createBroker("far", "127.0.0.1", 0, "127.0.0.1",
                                               std::stoi(ready.substr(ready.rfind(' '))));
  JXProxy proxy(broker, "Callee");
  std::vector<int> tasks;
  for (int i = 0; i < 6; ++i) tasks.push_back(proxy.pCall("untilStopped"));
  while (proxy.call<int>("running") < 4) std::this_thread::yield();
  // Calls that wait take threads beyond those.
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i)
    waiters.emplace_back([&, id = tasks[i]] { EXPECT_FALSE(proxy.call<bool>("wait", id, 0)); });
  EXPECT_TRUE(proxy.call<bool>("wait", tasks[5], 50)) << "not even begun";
  tasks.push_back(proxy.call<int>("pCall", "untilStopped"));
  tasks.push_back(proxy.pCall("untilStopped"));
  for (const int id : tasks) EXPECT_TRUE(proxy.call<bool>("isRunning", id));
  for (const int id : tasks) proxy.call<void>("stop", id);
  for (auto& waiter : waiters) waiter.join();
  for (const int id : tasks) EXPECT_FALSE(proxy.call<bool>("wait", id, 0));
  broker->shutdown();
}

TEST(ModulesThatComeAndGo, AnswerEachCallOrAreGone) {
  const house::Watchdog watchdog("modules that come and go", std::chrono::seconds(100));
  const Broker broker = JXBroker::createBroker("near", "127.0.0.1", 0, "", 0);
  std::atomic<bool> isOver{false};
  std::atomic<int> answered{0};
  std::vector<std::thread> callers;
  for (int i = 0; i < 3; ++i)
    callers.emplace_back([&] {
      while (!isOver) {
        try {
          JXProxy proxy(broker, "Callee");
          proxy.pCall("greet", "you");
          EXPECT_EQ(proxy.call<std::string>("greet", "you"), "hello you");
          ++answered;
        } catch (const JXError& error) {
          EXPECT_THAT(error.description(), testing::AnyOf(HasSubstr("Can't find service"),
                                                          testing::Eq("module destroyed")));
        }
      }
    });
  const auto lasting = createModule<TestModule>(broker, "Callee");
  for (int round = 0; round < house::rounds(1000) || answered == 0; ++round) {
    lasting->exit();
    createModule<TestModule>(broker, "Callee")->exit();
    lasting->initModule();
  }
  isOver = true;
  for (auto& caller : callers) caller.join();
  broker->shutdown();
}

TEST(TaskIds, BeginAnewBehindTheLargest) {
  std::atomic<int> last{std::numeric_limits<int>::max() - 1};
  EXPECT_EQ(nextIdBehind(last), std::numeric_limits<int>::max());
  EXPECT_EQ(nextIdBehind(last), 1);
  EXPECT_EQ(nextIdBehind(last), 2);
}

}  // namespace
}  // namespace JX
