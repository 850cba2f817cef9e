// Brokers: creation and its failures, the table of modules, look-up, lists, the order of the end.

#include <gmock/gmock.h>
#include <gvmessaging/session.h>
#include <jxcommon/jxbroker.h>
#include <jxcommon/jxbrokermanager.h>
#include <jxcommon/jxproxy.h>

#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>

#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/watchdog.h"
#include "testmodule.h"

namespace JX {
namespace {

using gv::log::Level;
using ::testing::StartsWith;
using Broker = boost::shared_ptr<JXBroker>;

/// A child of a directory on this machine; it never listens on the port given.
Broker makeChild(const std::string& name, int parentPort) {
  return JXBroker::createBroker(name, "127.0.0.1", 54010, "127.0.0.1", parentPort);
}

/// A master and a child of it, each with the other's modules one connection away.
class Network : public ::testing::Test {
 protected:
  Network() { gv::log::setLevel(Level::Verbose, "JXBroker"); }
  ~Network() override {
    child->shutdown();
    master->shutdown();
  }

  const house::Watchdog watchdog{"a test of brokers"};
  const Broker master = JXBroker::createBroker("master", "127.0.0.1", 0, "", 0, 7, "x", false);
  const Broker child = makeChild("child", master->getPort());
};

/// Expects one record of this level, function and text in the category "JXBroker".
void expectLogged(const house::LogCapture& log, Level level, const std::string& function,
                  const std::string& text) {
  int count = 0;
  for (const auto& record : log.records())
    if (record.level == level && record.category == "JXBroker" && record.function == function &&
        record.text == text)
      ++count;
  EXPECT_EQ(count, 1) << function << ": " << text;
}

TEST_F(Network, ANameCanBePublishedOnceAndIsFreeAgain) {
  const auto first = createModule<TestModule>(master, "Name");
  EXPECT_STREQ(errorOf([&] { createModule<TestModule>(master, "Name"); }).what(),
               "JXBroker::registerModule: module 'Name'already exists");
  const auto second = boost::make_shared<TestModule>(child, "Name");
  EXPECT_THAT(errorOf([&] { second->initModule(); }).what(),
              StartsWith("JXBroker::registerService: Can't register module 'Name':"));
  EXPECT_TRUE(second->isModuleStopped());
  second->exit();
  EXPECT_TRUE(child->isModulePresent("Name")) << "the refused one withdrew its namesake";
  EXPECT_EQ(master->getModuleByName("Name"), first);

  first->exit();
  EXPECT_FALSE(child->isModulePresent("Name"));
  second->initModule();
  second->initModule();
  EXPECT_EQ(child->getModuleByName("Name"), second);
}

/// Tells the order in which modules exit, and fails there if told so.
class Leaving : public JXModule {
 public:
  Leaving(Broker broker, const std::string& name, std::string& order, bool fails)
      : JXModule(broker, name), order_(order), fails_(fails) {}
  void exit() override {
    order_ += getName();
    if (fails_) throw std::runtime_error("will not go");
    JXModule::exit();
  }

 private:
  std::string& order_;
  const bool fails_;
};

TEST_F(Network, AShutdownEndsTheModulesFromTheLastToTheFirst) {
  std::string order;
  createModule<Leaving>(child, "B", order, false);
  createModule<Leaving>(child, "C", order, true);
  createModule<Leaving>(child, "A", order, false);
  const house::LogCapture log;
  EXPECT_TRUE(child->shutdown());
  EXPECT_EQ(order, "ACB");
  expectLogged(log, Level::Error, "shutdown", "module C failed to exit: will not go");
  EXPECT_EQ(child->getModuleByName("C"), nullptr);
  EXPECT_TRUE(child->isExiting() && !child->isConnected());
  EXPECT_FALSE(child->shutdown());
  EXPECT_EQ(JXBrokerManager::getInstance()->getBrokerByName("child"), nullptr);
  for (const auto& [broker, name] : {std::pair(child, "Late"), std::pair(master, "a/b")})
    EXPECT_THROW(createModule<TestModule>(broker, name), JXError);
}

TEST_F(Network, NothingOutlivesAShutdown) {
  boost::weak_ptr<JXBroker> gone;
  {
    const Broker third = makeChild("third", master->getPort());
    gone = third;
    createModule<TestModule>(third, "Mortal");
    EXPECT_EQ(liveModules.live(), 1);
    third->shutdown();
  }
  EXPECT_EQ(liveModules.live(), 0);
  EXPECT_TRUE(gone.expired());
  EXPECT_FALSE(master->isModulePresent("Mortal"));
}

TEST_F(Network, AMethodMayShutItsOwnBrokerDown) {
  const auto module = createModule<TestModule>(child, "Ender");
  module->bind("end", makeFunctor([broker = child.get()] { return broker->shutdown(); }));
  EXPECT_TRUE(JXProxy(master, "Ender").call<bool>("end"));
  EXPECT_TRUE(child->isExiting() && module->isModuleStopped());
}

/// Publishes itself in init(), then fails there.
class Hasty : public TestModule {
 public:
  using TestModule::TestModule;
  void init() override {
    initModule();
    throw std::runtime_error("init failed");
  }
};

TEST_F(Network, AModuleWhoseInitThrowsStaysUnpublished) {
  EXPECT_THROW(createModule<Hasty>(child, "Hasty"), std::runtime_error);
  EXPECT_FALSE(master->isModulePresent("Hasty"));
  EXPECT_EQ(child->getModuleByName("Hasty"), nullptr);
}

TEST(LookUp, ThatTimesOutWarnsWithTheFixedText) {
  // The time-out is read once in a process, so a process of its own has to read this one.
  if (!std::getenv("GV_DEADLOCK_TIMEOUT")) {
    house::ChildProcess self("/proc/self/exe", {"--gtest_filter=LookUp.*"},
                             {"GV_DEADLOCK_TIMEOUT=0x32"});
    EXPECT_EQ(self.waitForExit().exitCode, 0) << self.standardOutput();
    EXPECT_NE(self.standardOutput().find("[  PASSED  ] 1 test"), std::string::npos);
    return;
  }
  house::ChildProcess robot(JX_TEST_ROBOT);
  const std::string ready = robot.waitForLine("listening on ");
  const Broker child = makeChild("child", std::stoi(ready.substr(ready.rfind(' '))));
  robot.kill(SIGSTOP);
  ASSERT_EQ(::waitpid(robot.pid(), nullptr, WUNTRACED), robot.pid());
  gv::log::setLevel(Level::Verbose, "JXBroker");
  const house::LogCapture log;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(errorOf([&] { child->getProxy("Callee", 3); }).description(),
            "Can't find service: Callee");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
  expectLogged(log, Level::Warning, "service", "session.service(Callee) timed out after 30sec.");
  EXPECT_EQ(log.count("timeout after 30sec."), 0) << "the local look-up needs no time";
  EXPECT_EQ(log.count("Future exception while checking local service: "), 1);
  EXPECT_EQ(log.count("Future exception while checking remote service: "), 1);
  child->shutdown();
}

}  // namespace
}  // namespace JX
