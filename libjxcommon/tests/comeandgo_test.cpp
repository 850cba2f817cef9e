// Calls of each kind while the modules that they call come and go.

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "callsfixture.h"
#include "support/log_capture.h"
#include "support/rounds.h"

namespace JX {
namespace {

using testing::AnyOf;
using testing::Eq;
using testing::HasSubstr;

TEST(PostedCallsInTheMiddleOfAnEnding, EndAllTheSame) {
  const house::Watchdog watchdog("posted calls in the middle of an ending");
  const Broker broker = JXBroker::createBroker("near", "127.0.0.1", 0, "", 0);
  for (int round = 0; round < house::rounds(300); ++round) {
    auto module = createModule<TestModule>(broker, "Callee");
    JXProxy proxy(module->asObject(), "Callee");
    std::atomic<int> inner{0};
    module->bind("postAgain", makeFunctor([&, raw = module.get()] {
                   JXProxy itself(raw->asObject(), "Callee");
                   inner = itself.pCall("greet", "you");
                 }));
    const int stopped = proxy.pCall("untilStopped");
    int natural = 0, outer = 0;
    std::thread stopping([&] { module->stop(stopped); });
    std::thread withdrawing([&] { module->exit(); });
    std::thread posting([&] { outer = proxy.pCall("postAgain"); });
    natural = proxy.pCall("later", round);
    for (std::thread* thread : {&stopping, &withdrawing, &posting}) thread->join();
    EXPECT_FALSE(module->wait(outer, 0));
    for (const int id : {stopped, natural, outer, inner.load()}) {
      EXPECT_GT(id, 0);
      EXPECT_FALSE(module->wait(id, 0));
    }
    EXPECT_FALSE(broker->getModuleByName("Callee"));
  }
  while (liveModules.live() > 0) std::this_thread::yield();
  broker->shutdown();
}

/// Calls a module, both ways, until it is told to end: each call has a value or finds the module
/// gone. Returns how many had a value.
int callUntil(const std::atomic<bool>& isOver, const Broker& broker) {
  int answered = 0;
  while (!isOver) {
    try {
      JXProxy proxy(broker, "Callee");
      proxy.pCall("greet", "you");
      EXPECT_EQ(proxy.call<std::string>("greetSlowly", "you"), "hello you");
      ++answered;
    } catch (const JXError& error) {
      EXPECT_THAT(error.description(), AnyOf(HasSubstr("Can't find service"),
                                             Eq("module destroyed"), HasSubstr("no service")));
    }
  }
  return answered;
}

class ModulesThatComeAndGo : public Calls {};

INSTANTIATE_TEST_SUITE_P(A, ModulesThatComeAndGo, everywhere, nameOfPlace);

TEST_P(ModulesThatComeAndGo, EndEachKindOfCallOfEachThreadOfAProxy) {
  const JXValue none = std::vector<JXValue>{};
  const JXValue you = std::vector<JXValue>{"you"};
  const std::function<void()> kinds[] = {
      [&] { proxy->call<std::string>("greetSlowly", "you"); },
      [&] { proxy->genericCall("greetSlowly", you); },
      [&] { proxy->wait(proxy->pCall("greet", "you"), 0); },
      [&] { proxy->isRunning(proxy->genericPCall("later", std::vector<JXValue>{1})); },
      [&] { proxy->stop(proxy->pCall("greet", "you")); },
      [&] {
        proxy->pCallNotify("onNone", "", none, none);
        proxy->call<void>("greet", "you");  // no flood
      },
      [&] { proxy->call<int>("later", 1); },
      [&] { proxy->version(); },
  };
  std::atomic<int> answered{0};
  std::atomic<bool> isOver{false};  // in this process, calls that overlap keep the module alive
  std::vector<std::future<std::string>> callers;
  for (int i = 0; i < 16; ++i)
    callers.push_back(std::async(std::launch::async, [&, call = kinds[i % 8]] {
      try {
        for (; !isOver; ++answered) call();
        return std::string("module destroyed");
      } catch (const JXError& error) {
        return error.description();
      }
    }));
  while (answered < 1000) std::this_thread::yield();
  proxy->call<void>("withdraw");
  isOver = true;
  for (auto& caller : callers)
    EXPECT_THAT(caller.get(), AnyOf(Eq("module destroyed"), HasSubstr("no service")));
  waitUntilTheModuleIsGone();
  EXPECT_EQ(liveModules.live(), 0);
}

TEST_P(ModulesThatComeAndGo, AnswerEachCallOrAreGone) {
  const house::LogCapture log;
  std::atomic<bool> isOver{false};
  std::atomic<int> answered{0};
  std::vector<std::thread> callers;
  for (int i = 0; i < 3; ++i) callers.emplace_back([&] { answered += callUntil(isOver, broker); });
  if (!isElsewhere()) createModule<TestModule>(home, "Control");
  JXProxy(broker, "Control").call<void>("comeAndGo", house::rounds(1000));
  isOver = true;
  for (auto& caller : callers) caller.join();
  EXPECT_GT(answered, 0);
  EXPECT_EQ(log.count("timed out"), 0) << "what is gone is not slow";
}

}  // namespace
}  // namespace JX
