// What brokers and their manager say, word for word: every log record and every error.

#include <gmock/gmock.h>
#include <jxcommon/jxbrokermanager.h>
#include <jxcommon/jxproxy.h>
#include <unistd.h>

#include <functional>

#include "support/log_capture.h"
#include "support/watchdog.h"
#include "testmodule.h"

namespace JX {
namespace {

using gv::log::Level;
using testing::ElementsAreArray;
using Broker = boost::shared_ptr<JXBroker>;
using Texts = std::vector<std::string>;

/// The records that brokers and their manager write during `action`, each as "<level> <category>
/// <function>: <text>", and behind them the JXError that it throws.
Texts toldDuring(const std::function<void()>& action) {
  const house::LogCapture log;
  Texts told;
  const auto error = [&]() -> std::string {
    try {
      return action(), "";
    } catch (const JXError& thrown) {
      EXPECT_EQ(thrown.file().rfind("../libjxcommon/src/jx", 0), 0u) << thrown.file();
      EXPECT_GT(thrown.line(), 0);
      return "throws " + thrown.moduleName() + " " + thrown.methodName() + ": " +
             thrown.description();
    }
  }();
  for (const auto& record : log.records()) {
    if (record.category != "JXBroker" && record.category != "JXBroker.manager") continue;
    const std::string level = record.level == Level::Error     ? "error"
                              : record.level == Level::Warning ? "warning"
                              : record.level == Level::Info    ? "info"
                              : record.level == Level::Verbose ? "verbose"
                                                               : "another level";
    told.push_back(level + " " + record.category + " " + record.function + ": " + record.text);
    EXPECT_EQ(record.file, "");
    EXPECT_EQ(record.line, 0);
  }
  if (!error.empty()) told.push_back(error);
  return told;
}

template <class T>
std::string errorIn(const gv::Future<T>& future) {
  return future.error(20'000);
}

/// A master and a child, and what they must say.
class BrokerRecords : public ::testing::Test {
 protected:
  struct Row {
    std::function<void()> action;
    Texts told;
  };

  BrokerRecords() { gv::log::setLevel(Level::Verbose, "JXBroker*"); }
  ~BrokerRecords() override { JXBrokerManager::getInstance()->killAllBroker(); }

  static Broker make(const std::string& name, const std::string& ip, int port,
                     const std::string& parentIP, int parentPort) {
    return JXBroker::createBroker(name, ip, port, parentIP, parentPort, 3, "any", false);
  }

  static void expectTold(const std::vector<Row>& rows) {
    for (const Row& row : rows) EXPECT_THAT(toldDuring(row.action), ElementsAreArray(row.told));
  }

  const house::Watchdog watchdog{"a test of what brokers say"};
  const std::string own = "127.0.0.1";
  const Broker master = make("master", own, 0, "", 0);
  const int port = master->getPort();
  const Broker child = make("child", own, 0, own, port);
};

TEST_F(BrokerRecords, OfCreation) {
  const std::string creating =
      "verbose JXBroker createBroker: Creating a master which listen on tcp://";
  const std::string connecting = "verbose JXBroker createBroker: Connecting broker to tcp://";
  const std::string cannotListen =
      "throws JXBroker createBroker: Service Directory can't listen on tcp://";
  const std::string cannotConnect = "throws JXBroker createBroker: Cannot connect to tcp://";
  const std::string taken = own + ":" + std::to_string(port);
  toldDuring([&] { make("made", "", 9559, "", 0); });  // whoever has that port, the next has not
  expectTold({
      {[&] { make("made", own, 0, "", 0); }, {creating + own + ":0"}},
      {[&] { make("refused", "", -1, "", 0); },
       {creating + "0.0.0.0:9559", cannotListen + "0.0.0.0:9559"}},
      {[&] { make("refused", own, port, "", 0); }, {creating + taken, cannotListen + taken}},
      {[&] { make("refused", own, 70'000, "", 0); },
       {creating + own + ":70000", cannotListen + own + ":70000"}},
      {[&] { make("refused", "no such address", 0, "", 0); },
       {creating + "no such address:0", cannotListen + "no such address:0"}},
      {[&] { make("made", own, 54'010, "", port); }, {connecting + taken}},
      {[&] { make("refused", "no such address", 0, own, port); },
       {connecting + taken, "throws JXBroker createBroker: Can't create a server"}},
      {[&] { make("refused", own, 0, own, 0); },
       {connecting + own + ":0", cannotConnect + own + ":0"}},
      {[&] { make("refused", own, 0, "", -5); },
       {connecting + own + ":-5", cannotConnect + own + ":-5"}},
      {[&] { make("refused", own, 1, own, 1); },
       {connecting + own + ":1", cannotConnect + own + ":1"}},
      {[&] { make("refused", own, 0, "240.0.0.1", 1); },
       {connecting + "240.0.0.1:1", cannotConnect + "240.0.0.1:1"}},
      {[&] { make("refused", own, 0, "no such host", port); },
       {connecting + "no such host:" + std::to_string(port),
        cannotConnect + "no such host:" + std::to_string(port)}},
  });
  EXPECT_EQ(JXBrokerManager::getInstance()->getBrokerByName("refused"), nullptr);
}

TEST_F(BrokerRecords, OfTheTableAndOfLookUp) {
  const auto module = createModule<TestModule>(child, "Here");
  const auto odd = createModule<TestModule>(child, "Odd");
  unsigned oddId = 0;
  for (const auto& service : child->session()->services().value())
    if (service.name() == "Odd") oddId = service.serviceId();
  child->session()->unregisterService(oddId).value();
  const auto session = master->session();
  const std::string notHere = errorIn(session->service("Nobody", "local"));
  const std::string nowhere = errorIn(session->service("Nobody", ""));
  const std::string taken = errorIn(session->registerService("Here", module->asObject()));
  const std::string unknownId = errorIn(child->session()->unregisterService(oddId));
  const std::string checking = "verbose JXBroker service: Future exception while checking ";
  const Broker ended = make("ended", own, 0, own, port);
  ended->shutdown();
  const std::string notAnyMore = errorIn(ended->session()->service("Here", ""));
  expectTold({
      {[&] { createModule<TestModule>(child, "Here"); },
       {"throws JXBroker registerModule: module 'Here'already exists"}},
      {[&] { createModule<TestModule>(master, "Here"); },
       {"throws JXBroker registerService: Can't register module 'Here':" + taken}},
      {[&] { EXPECT_EQ(child->unregisterModule("Nobody"), 0); },
       {"error JXBroker unregisterModule: JXBroker::unregisterModule can't unregister module: "
        "Nobody"}},
      {[&] { EXPECT_EQ(child->unregisterModule("Odd"), 0); },
       {"info JXBroker unlockedUnregisterModule: Cannot unregister module Odd : " + unknownId}},
      {[&] { EXPECT_EQ(master->getModuleByName("Here"), nullptr); },
       {"verbose JXBroker getModuleByName: JXBroker::getModuleByName: module not found:Here"}},
      {[&] { EXPECT_EQ(child->getModuleByName("Here"), module); }, {}},
      {[&] { EXPECT_TRUE(master->isModulePresent("Here")); }, {}},
      {[&] { EXPECT_FALSE(master->isModulePresent("Her")); }, {}},
      {[&] { EXPECT_TRUE(master->getProxy("Here", 5)->isLocal()); }, {}},
      {[&] { master->getProxy("Nobody", 0); },
       {checking + "local service: " + notHere, checking + "remote service: " + nowhere,
        "throws JXProxy JXProxy: Can't find service: Nobody"}},
      {[&] { ended->getProxy("Here", 0); },
       {checking + "local service: " + errorIn(ended->session()->service("Here", "local")),
        checking + "remote service: " + notAnyMore,
        "warning JXBroker service: session.service(Here) timed out after 30sec.",
        "throws JXProxy JXProxy: Can't find service: Here"}},
  });
}

TEST_F(BrokerRecords, OfIdentityListsAndTheEnd) {
  createModule<TestModule>(master, "Far");
  createModule<TestModule>(child, "Near");
  const auto list = boost::make_shared<std::vector<JXModuleInfo>>(1);
  const Texts parent = {"verbose JXBroker getParentIP: Ask for parent IP 127.0.0.1"};
  const Texts parentPort = {"verbose JXBroker getParentPort: Ask for parent port " +
                            std::to_string(port)};
  expectTold({
      {[&] { EXPECT_EQ(child->getName(), "child"); }, {}},
      {[&] { EXPECT_EQ(child->getIP(), own); },
       {"verbose JXBroker getIP: IP asked. Ask for parent IP.", parent[0]}},
      {[&] { EXPECT_EQ(child->getPort(), port); },
       {"verbose JXBroker getPort: Port asked. Ask for parent port.", parentPort[0]}},
      {[&] { EXPECT_EQ(child->getParentIP(), own); }, parent},
      {[&] { EXPECT_EQ(master->getParentPort(), port); }, parentPort},
      {[&] { EXPECT_EQ(child->getModuleList(list), 0); },
       {"warning JXBroker getModuleList: JXBroker::getModuleList may contain incomplete "
        "information (missing ip/port)"}},
      {[&] { EXPECT_EQ(child->getGlobalModuleList(list), 0); },
       {"warning JXBroker getGlobalModuleList: JXBroker::getGlobalModuleList may contain "
        "incomplete information (missing ip/port)"}},
      {[&] { EXPECT_EQ(child->getBrokerList(*list), 0); },
       {"error JXBroker getBrokerList: JXBroker::getBrokerList is not implemented and "
        "deprecated"}},
      {[&] { EXPECT_EQ(child->httpGet("x"), "JXBroker::httpGet not implemented"); },
       {"error JXBroker httpGet: JXBroker::httpGet is not implemented"}},
      {[&] { EXPECT_TRUE(child->shutdown()); }, {}},
      {[&] { EXPECT_FALSE(child->shutdown()); }, {}},
  });
  // Both lists appended, each in the session's order, the directory among the network's services.
  Texts names;
  for (const JXModuleInfo& info : *list) {
    names.push_back(info.name);
    EXPECT_EQ(info.ip, "");
    EXPECT_EQ(info.processId, info.name.empty() ? 0 : static_cast<int>(::getpid()));
  }
  EXPECT_THAT(names, ElementsAreArray({"", "Far", "Near", "ServiceDirectory", "Far", "Near"}));
}

TEST_F(BrokerRecords, OfTheManager) {
  const auto manager = JXBrokerManager::getInstance();
  const auto first = [&](const Broker& broker) { EXPECT_EQ(broker, master); };
  const auto deprecated = [](const std::string& name) {
    return Texts{"verbose JXBroker.manager " + name +
                 ": This function is deprecated and always return the first created broker."};
  };
  const std::string asked = "verbose JXBroker getParentIP: Ask for parent IP 127.0.0.1";
  const std::string portAsked =
      "verbose JXBroker getParentPort: Ask for parent port " + std::to_string(port);
  const auto find = [&](JXBrokerManager& where, const std::string& ip, int parentPort) {
    return where.getBrokerByParentIPPort(ip, parentPort);
  };
  const Broker ended = make("ended", own, 0, own, port);
  ended->shutdown();
  JXBrokerManager other;  // whose brokers stay listed: it is not the process's
  for (const Broker& broker : {ended, child}) other.addBroker(broker);
  const std::string reason = errorOf([&] { ended->getParentIP(); }).what();
  const std::string killing = "info JXBroker.manager killAllBroker: Killing broker ";
  const Texts spree = {"verbose JXBroker.manager killAllBroker: killing All Broker",
                       "verbose JXBroker.manager killAllBroker: JXBroker Killing spree done."};
  expectTold({
      {[&] { first(manager->getReservedBroker()); }, deprecated("getReservedBroker")},
      {[&] { first(manager->getRandomBroker()); }, deprecated("getRandomBroker")},
      {[&] { first(manager->getBrokerByIPPort("?", 1)); }, deprecated("getBrokerByIPPort")},
      {[&] { first(manager->getBrokerByIPPort("?")); }, deprecated("getBrokerByIPPort")},
      {[&] { JXBrokerManager::kill(); },
       {"verbose JXBroker.manager kill: This function is not implemented"}},
      {[&] { EXPECT_EQ(JXBrokerManager::getInstance(), manager); }, {}},
      {[&] { first(find(*manager, own, port)); }, {asked, portAsked}},
      {[&] { EXPECT_FALSE(find(*manager, "127.0.0.2", port)); }, {asked, asked}},
      {[&] { EXPECT_FALSE(find(*manager, own, 1)); }, {asked, portAsked, asked, portAsked}},
      {[&] { EXPECT_FALSE(find(other, own, port)); },
       {"verbose JXBroker.manager getBrokerByParentIPPort: Error while iterating over brokers:" +
        reason}},
      {[&] { other.killAllBroker(); }, {spree[0], killing + "ended", killing + "child", spree[1]}},
      {[&] { manager->killAllBroker(); }, {spree[0], killing + "master", spree[1]}},
      {[&] { manager->killAllBroker(); }, spree},
      {[&] { EXPECT_FALSE(manager->getRandomBroker()); }, deprecated("getRandomBroker")},
  });
  JXBrokerManager::setInstance({});
  EXPECT_EQ(JXBrokerManager::getInstance(), nullptr);
  const Broker unlisted = make("unlisted", own, 0, "", 0);
  EXPECT_TRUE(unlisted->shutdown());
  EXPECT_EQ(JXBrokerManager::setInstance(manager), manager);
  EXPECT_EQ(JXBrokerManager::getInstance(), manager);
}

}  // namespace
}  // namespace JX
