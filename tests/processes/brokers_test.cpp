// Networks of several real brokers: what each sees of the others, and of those that go.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <jxcommon/jxbrokermanager.h>
#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>
#include <boost/make_shared.hpp>

#include "conversation.h"
#include "observe.h"
#include "robotprocess.h"
#include "support/child_process.h"
#include "support/faultproxy.h"
#include "support/link.h"
#include "support/rounds.h"
#include "support/sanitized.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using testing::StartsWith;
using Broker = boost::shared_ptr<JX::JXBroker>;
using Views = std::map<std::string, int>;

/// How often, or how many: rounds of several processes take a while on few processors.
int inEverydayOrLongRun(int everyday, int longRun) {
  return house::roundsFactor() > 1 ? longRun : everyday;
}

/// A running test_broker, and a proxy on its module through a broker of this process.
class BrokerProcess {
 public:
  BrokerProcess(const std::string& name, int port, int parentPort)
      : name_(name),
        process_(TEST_BROKER, {name, std::to_string(port), std::to_string(parentPort)}),
        link_(portIn(process_.waitForLine("listening on "))) {}

  const std::string& name() const { return name_; }
  /// Where others reach it, and where it listens.
  int port() const { return link_.port(); }
  int ownPort() const { return link_.serverPort(); }
  int pid() const { return process_.pid(); }

  void watchFrom(const Broker& observer) { proxy_ = observer->getProxy(name_, 0); }
  JX::JXProxy& proxy() { return *proxy_; }

  void kill() { process_.kill(SIGKILL); }
  /// Returns when it does stand still.
  void standStill() {
    process_.kill(SIGSTOP);
    siginfo_t stopped;
    ::waitid(P_PID, static_cast<id_t>(pid()), &stopped, WSTOPPED);
  }
  void goOn() { process_.kill(SIGCONT); }
  bool hasEndedWell() { return process_.waitForExit().exitCode == 0; }
  /// Tells it to end; whether it did so in order. Posted, as the end may overtake a reply.
  bool end() {
    proxy_->asObject().post("end");
    return hasEndedWell();
  }

 private:
  const std::string name_;
  house::ChildProcess process_;
  const house::Link link_;
  boost::shared_ptr<JX::JXProxy> proxy_;
};

Broker join(int parentPort) {
  return JX::JXBroker::createBroker("observer", "127.0.0.1", 0, "127.0.0.1", parentPort);
}

/// A master, children of it, and a child in this process.
class BrokersOfSeveralProcesses : public testing::Test {
 protected:
  using Member = std::unique_ptr<BrokerProcess>;

  static Member startIn(int port, const Broker& observer, const std::string& name) {
    auto member = std::make_unique<BrokerProcess>(name, 0, port);
    member->watchFrom(observer);
    return member;
  }

  Views viewsOfObserver() {
    const auto infos = boost::make_shared<std::vector<JX::JXModuleInfo>>();
    observer->getGlobalModuleList(infos);
    Views views;
    for (const JX::JXModuleInfo& info : *infos) views[info.name] = info.processId;
    return views;
  }

  /// Whether each broker lists these modules, and the directory, of the right processes, finds them
  /// present, and is who it is.
  bool viewsAreRight() {
    Views all = {{"ServiceDirectory", master.pid()}, {"Observer", ::getpid()}};
    all[master.name()] = master.pid();
    for (const Member& child : children) all[child->name()] = child->pid();
    bool areRight = viewsOfObserver() == all && observer->isModulePresent("Master");
    const auto look = [&](BrokerProcess& process) {
      const int port = &process == &master ? master.ownPort() : master.port();
      areRight =
          areRight && process.proxy().call<Views>("modules") == all &&
          process.proxy().call<Views>("ownModules") == Views{{process.name(), process.pid()}} &&
          process.proxy().call<bool>("isPresent", "Observer") &&
          !process.proxy().call<bool>("isPresent", "Nobody") &&
          identity(process) ==
              process.name() + " of 127.0.0.1:" + std::to_string(port) + ", connected";
    };
    look(master);
    for (const Member& child : children) look(*child);
    return areRight;
  }

  std::string identity(BrokerProcess& process) {
    return process.proxy().call<std::string>("identity");
  }

  house::Watchdog watchdog{"brokers of several processes", std::chrono::seconds(80)};
  BrokerProcess master{"Master", 0, 0};
  const Broker observer = join(master.port());
  const boost::shared_ptr<JX::JXModule> module =
      JX::createModule<JX::JXModule>(observer, "Observer");
  std::vector<Member> children;
};

constexpr int withinMs = house::isSanitized ? 5000 : 1000;

TEST_F(BrokersOfSeveralProcesses, SeeWhoCameAndWhoWentAndOutliveTheirMaster) {
  const std::string at = " of 127.0.0.1:" + std::to_string(master.port());
  master.watchFrom(observer);
  for (const char* name : {"A", "B", "C"})
    children.push_back(startIn(master.port(), observer, name));
  EXPECT_TRUE(viewsAreRight());

  int slowestMs = 0;
  for (std::size_t i = 0; i < 3; ++i) {
    const Member killed = std::move(children.front());
    children.erase(children.begin());
    killed->kill();
    const auto start = Clock::now();
    EXPECT_TRUE(becomesTrue([&] { return viewsAreRight(); }));
    slowestMs = std::max(slowestMs, millisecondsSince(start));
    EXPECT_FALSE(observer->isModulePresent(killed->name()));
    children.push_back(startIn(master.port(), observer, killed->name()));
    EXPECT_TRUE(viewsAreRight()) << "seen from the moment on that it says it is there";
  }
  EXPECT_LT(slowestMs, withinMs);
  RecordProperty("slowestMilliseconds", slowestMs);

  master.kill();
  master.hasEndedWell();  // its port is free now
  for (const Member& child : children)
    EXPECT_TRUE(becomesTrue([&] { return identity(*child) == child->name() + at + ", alone"; }));
  EXPECT_TRUE(becomesTrue([&] { return !observer->isConnected(); }));
  for (const Member& child : children)
    EXPECT_THROW(observer->getProxy(child->name(), 0), JX::JXError) << "nobody knows any more";
  BrokerProcess newMaster("Master", master.ownPort(), 0);
  const Broker newObserver = join(master.port());
  newMaster.watchFrom(newObserver);
  const Member newChild = startIn(master.port(), newObserver, "A");
  const Views newViews = {
      {"ServiceDirectory", newMaster.pid()}, {"Master", newMaster.pid()}, {"A", newChild->pid()}};
  EXPECT_EQ(newMaster.proxy().call<Views>("modules"), newViews);
  EXPECT_EQ(newChild->proxy().call<Views>("modules"), newViews);
  for (const Member& child : children) {
    EXPECT_TRUE(child->proxy().call<bool>("pingOwn"));
    EXPECT_TRUE(child->end());
  }
  EXPECT_TRUE(JX::JXProxy(observer, "Observer").call<bool>("ping"));
  EXPECT_TRUE(observer->shutdown());
  EXPECT_TRUE(newChild->end());
  EXPECT_TRUE(newMaster.end());
  newObserver->shutdown();
}

TEST_F(BrokersOfSeveralProcesses, HoldNoLockWhileTheyWaitForTheirMaster) {
  const std::function<void()> actions[] = {
      [&] { JX::createModule<JX::JXModule>(observer, "Late"); },
      [&] { EXPECT_TRUE(observer->isModulePresent("Late")); },
      [&] { observer->getProxy("Master", 0); },
      [&] { observer->unregisterModule("Late"); },
      [&] { observer->shutdown(); },
  };
  for (const auto& action : actions) {
    master.standStill();
    auto ended = std::async(std::launch::async, action);
    // Were a lock held in there, this would not end before the master goes on.
    for (const auto start = Clock::now(); millisecondsSince(start) < 50;) {
      observer->unregisterModule("Nobody");
      JX::JXBrokerManager::getInstance()->getBrokerByName("nobody");
    }
    EXPECT_EQ(ended.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
        << "it waits for the master";
    master.goOn();
    ended.get();
  }
}

TEST_F(BrokersOfSeveralProcesses, GiveANameToOneOfThoseWhoRaceForIt) {
  master.watchFrom(observer);
  for (int i = 0; i < 8; ++i)
    children.push_back(startIn(master.port(), observer, "Racer" + std::to_string(i)));
  const int rounds = inEverydayOrLongRun(8, 1000);
  std::vector<int> won(children.size());
  for (int round = 0; round < rounds; ++round) {
    std::vector<gv::Future<std::string>> claims;
    claims.resize(children.size());
    for (std::size_t i = 0; i < children.size(); ++i) {
      const std::size_t next = (i + static_cast<std::size_t>(round)) % children.size();
      claims[next] =
          children[next]->proxy().asObject().async<std::string>("claim", std::string("Prize"));
    }
    std::vector<std::size_t> winners;
    for (std::size_t i = 0; i < claims.size(); ++i) {
      const std::string why = claims[i].value(20'000);
      if (why.empty())
        winners.push_back(i);
      else
        EXPECT_THAT(why, StartsWith("JXBroker::registerService: Can't register module 'Prize':"));
    }
    ASSERT_EQ(winners.size(), 1u) << "round " << round;
    ++won[winners[0]];
    children[winners[0]]->proxy().call<void>("release");
    ASSERT_FALSE(observer->isModulePresent("Prize"));
  }
  EXPECT_GT(std::count_if(won.begin(), won.end(), [](int n) { return n > 0; }), 1);
  EXPECT_FALSE(errorOf([&] { children[0]->proxy().call<void>("leave"); }).empty());
  EXPECT_TRUE(children[0]->hasEndedWell()) << "exit() within a method";
  children.erase(children.begin());
  for (const Member& child : children) EXPECT_TRUE(child->end());
  observer->shutdown();
}

/// How many calls a child of the process makes of it that lists its modules so many times.
int callsOfAListing(BrokerProcess& process, int times, std::size_t modules) {
  house::FaultProxy between(process.port());
  auto recording = between.recordNext();
  const Broker child = join(between.port());
  for (int i = 0; i < times; ++i) {
    const auto list = boost::make_shared<std::vector<JX::JXModuleInfo>>();
    child->getGlobalModuleList(list);
    EXPECT_EQ(list->size(), modules);
  }
  child->shutdown();
  const auto frames = framesOf(recording.get().toServer);
  return static_cast<int>(std::count_if(
      frames.begin(), frames.end(), [](const FrameBytes& frame) { return frame.type() == Call; }));
}

TEST_F(BrokersOfSeveralProcesses, ListAnyNumberOfModulesInOneRoundTrip) {
  master.watchFrom(observer);
  const int modules = inEverydayOrLongRun(200, 10'000);
  master.proxy().call<void>("publish", modules);
  const auto all = static_cast<std::size_t>(modules) + 3;  // the directory, "Master", "Observer"
  EXPECT_EQ(callsOfAListing(master, 3, all), callsOfAListing(master, 1, all) + 2);
  EXPECT_TRUE(observer->isModulePresent("Module" + std::to_string(modules - 1)));
  EXPECT_TRUE(master.end());
  observer->shutdown();
}

/// The first port from `port` on that a master gets; below those that the system hands out.
int freePort(int port) {
  while (true) {
    try {
      JX::JXBroker::createBroker("first", "127.0.0.1", port, "", 0)->shutdown();
      return port;
    } catch (const JX::JXError&) {
      if (++port == 32'000) throw;
    }
  }
}

TEST(BrokersMadeAndShutDown, OverAndOverLeaveNothingBehindAndThePortIsFreeAtOnce) {
  const house::Watchdog watchdog("brokers over and over", std::chrono::seconds(80));
  const int port = freePort(20'000 + ::getpid() % 10'000);
  const auto makeAndEnd = [port] {
    const Broker master = JX::JXBroker::createBroker("master", "127.0.0.1", port, "", 0);
    const Broker child = JX::JXBroker::createBroker("child", "127.0.0.1", 0, "127.0.0.1", port);
    JX::createModule<JX::JXModule>(child, "Module");
    EXPECT_TRUE(JX::JXProxy(master, "Module").call<bool>("ping"));
    child->shutdown();
    EXPECT_FALSE(master->isModulePresent("Module"));
    master->shutdown();
    EXPECT_EQ(master.use_count() + child.use_count(), 2) << "nobody else holds them";
  };
  for (int i = 0; i < 20; ++i) makeAndEnd();
  const Figures atStart = figuresOf(::getpid());
  const int rounds = inEverydayOrLongRun(100, 10'000);
  for (int i = 0; i < rounds; ++i) makeAndEnd();
  EXPECT_TRUE(becomesTrue([&] {
    const Figures now = figuresOf(::getpid());
    return now.descriptors <= atStart.descriptors && now.threads <= atStart.threads + 2;
  })) << figuresOf(::getpid()).descriptors
      << " descriptors, " << atStart.descriptors << " before; " << figuresOf(::getpid()).threads
      << " threads, " << atStart.threads << " before";
  const long grown = figuresOf(::getpid()).residentKiB - atStart.residentKiB;
  RecordProperty("residentKiBGrown", std::to_string(grown));
  if (!house::isSanitized) {
    EXPECT_LT(grown, 4 * 1024);
  }
}

}  // namespace
}  // namespace processes
