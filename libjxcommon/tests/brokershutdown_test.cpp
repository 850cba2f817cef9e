// Shutdown from wherever it may be asked for, and beside whatever may go on.

#include <gtest/gtest.h>
#include <jxcommon/jxbrokermanager.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "callsfixture.h"
#include "support/log_capture.h"
#include "support/rounds.h"

namespace JX {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto bound = std::chrono::seconds(10);

class BrokersThatShutDown : public Calls {
 protected:
  /// One more broker, with the module "Callee" in this process or in another one.
  Broker makeOne() {
    if (isElsewhere())
      return JXBroker::createBroker("one", "127.0.0.1", 0, "127.0.0.1", broker->getPort());
    const Broker one = JXBroker::createBroker("one", "127.0.0.1", 0, "", 0);
    createModule<TestModule>(one, "Callee");
    return one;
  }
};

INSTANTIATE_TEST_SUITE_P(A, BrokersThatShutDown,
                         ::testing::Values(Place::SameBroker, Place::OtherProcess), nameOfPlace);

TEST_P(BrokersThatShutDown, EndBesideAHundredThreadsThatMakeProxiesCallAndDropThem) {
  // A hundred threads that never rest make rounds slow where there are few processors.
  const int rounds = house::roundsFactor() > 1 ? house::rounds(20) : 3;
  for (int round = 0; round < rounds; ++round) {
    const Broker one = makeOne();
    std::atomic<int> calls{0};
    const auto callOn = [&] {
      while (!one->isExiting()) {
        try {
          JXProxy callee(one, "Callee");
          EXPECT_EQ(callee.call<std::string>("greet", "you"), "hello you");
          ++calls;
        } catch (const JXError&) {
          EXPECT_TRUE(one->isExiting());
        }
      }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 100; ++i) threads.emplace_back(callOn);
    while (calls < 50 + round) std::this_thread::yield();
    const auto start = Clock::now();
    EXPECT_TRUE(one->shutdown());
    for (std::thread& thread : threads) thread.join();
    EXPECT_LT(Clock::now() - start, bound);
  }
}

TEST_P(BrokersThatShutDown, LeaveNoModuleThatWasMadeMeanwhile) {
  const int live = liveModules.live();
  for (int round = 0; round < house::rounds(20); ++round) {
    const Broker one = makeOne();
    auto makeModules = std::async(std::launch::async, [one] {
      try {
        for (int i = 0;; ++i) createModule<TestModule>(one, "Late" + std::to_string(i));
      } catch (const JXError&) {
        return one->isExiting();
      }
    });
    const auto isMaking = [&] {
      return makeModules.wait_for(std::chrono::seconds(0)) == std::future_status::timeout;
    };
    while (round % 2 == 1 && isMaking() && !one->getModuleByName("Late0"))
      std::this_thread::yield();
    one->shutdown();
    EXPECT_TRUE(makeModules.get());
    EXPECT_EQ(liveModules.live(), live);
    if (isElsewhere()) {
      EXPECT_FALSE(broker->isModulePresent("Late0"));
    }
  }
}

TEST_P(BrokersThatShutDown, MayBeToldSoFromAnywhere) {
  const auto fromTwoThreads = [](const Broker& one) {
    auto other = std::async(std::launch::async, [&] { return one->shutdown(); });
    const bool isFirst = one->shutdown();
    EXPECT_NE(other.get(), isFirst) << "one of them does it";
  };
  const auto fromALogHandler = [](const Broker& one) {
    const auto id = gv::log::addHandler("test", [&](const gv::log::Record& record) {
      if (record.function == "getParentPort") one->shutdown();
    });
    EXPECT_EQ(errorOf([&] {
                one->getParentPort();
                one->getParentPort();
              }).methodName(),
              "getParentPort")
        << "the first call still answers, the second finds no address";
    gv::log::removeHandler(id);
  };
  const auto fromTheEventLoop = [](const Broker& one) {
    EXPECT_TRUE(gv::getEventLoop()->async([one] { return one->shutdown(); }).value());
  };
  const auto fromTheManager = [](const Broker& one) {
    JXBrokerManager::getInstance()->removeBroker(one);
  };
  gv::log::setLevel(gv::log::Level::Verbose, "JXBroker");
  for (const std::function<void(const Broker&)>& tell :
       {std::function<void(const Broker&)>(fromTwoThreads),
        {fromALogHandler},
        {fromTheEventLoop},
        {fromTheManager}}) {
    Broker one = makeOne();
    tell(one);
    EXPECT_TRUE(one->isExiting() && !one->isConnected());
    EXPECT_EQ(one->getModuleByName("Callee"), nullptr);
    // The last owner lets go on a thread of the framework.
    const boost::weak_ptr<JXBroker> gone = one;
    gv::getEventLoop()->async([last = std::move(one)]() mutable { last.reset(); }).value();
    EXPECT_TRUE(gone.expired());
  }
}

TEST_P(BrokersThatShutDown, MayGoUnheardWhereverTheirLastOwnerLetsGo) {
  Broker one = makeOne();
  one->unregisterModule("Callee");
  const boost::weak_ptr<JXBroker> gone = one;
  JXBrokerManager::getInstance()->removeFromList(one);
  gv::getEventLoop()->async([last = std::move(one)]() mutable { last.reset(); }).value();
  EXPECT_TRUE(gone.expired()) << "with its session open";
  EXPECT_TRUE(broker->isConnected());
}

/// Whether this thread looks at locks, and so must not do it again from its own records.
thread_local bool looksAtLocks = false;

/// In each record of brokers, and in the end of its module, another thread takes every lock of the
/// broker and the manager: where one is held then, that never ends.
class LockSpy {
 public:
  explicit LockSpy(const Broker& broker) : broker_(broker) {
    id_ = gv::log::addHandler("lock spy", [this](const gv::log::Record& record) {
      if (record.category.rfind("JXBroker", 0) == 0) look();
    });
  }
  ~LockSpy() { gv::log::removeHandler(id_); }

  void look() {
    if (looksAtLocks) return;
    std::async(std::launch::async, [this] {
      looksAtLocks = true;
      broker_->unregisterModule("Nobody");
      JXBrokerManager::getInstance()->getBrokerByName("nobody");
      ++looks_;
    }).get();
  }
  int looks() const { return looks_; }

 private:
  const Broker broker_;
  gv::log::HandlerId id_;
  std::atomic<int> looks_{0};
};

TEST_P(BrokersThatShutDown, HoldNoLockWhereForeignCodeRuns) {
  struct Spied : TestModule {
    Spied(Broker one, const std::string& name, LockSpy& eye) : TestModule(one, name), spy(eye) {}
    ~Spied() override { spy.look(); }
    void exit() override {
      spy.look();
      TestModule::exit();
      spy.look();
    }
    LockSpy& spy;
  };
  gv::log::setLevel(gv::log::Level::Verbose, "JXBroker*");
  const Broker one = makeOne();
  const auto manager = JXBrokerManager::getInstance();
  LockSpy spy(one);
  createModule<Spied>(one, "Spied", spy);
  errorOf([&] { createModule<Spied>(one, "Spied", spy); });
  createModule<Spied>(one, "Withdrawn", spy);
  one->unregisterModule("Withdrawn");
  one->unregisterModule("Withdrawn");
  one->getModuleByName("Withdrawn");
  errorOf([&] { one->getProxy("Withdrawn", 0); });
  const auto list = boost::make_shared<std::vector<JXModuleInfo>>();
  one->getModuleList(list);
  one->getGlobalModuleList(list);
  EXPECT_NE(manager->getBrokerByParentIPPort("127.0.0.1", broker->getPort()), nullptr);
  manager->getRandomBroker();
  const int before = spy.looks();
  EXPECT_GT(before, 10);
  manager->killAllBroker();
  EXPECT_GT(spy.looks(), before + 5);
}

}  // namespace
}  // namespace JX
