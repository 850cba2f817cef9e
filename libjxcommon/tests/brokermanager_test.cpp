// The list of brokers: its walks with their effects on empty entries, and the killing spree.

#include <gtest/gtest.h>
#include <jxcommon/jxbroker.h>
#include <jxcommon/jxbrokermanager.h>

#include <boost/make_shared.hpp>

#include "src/jxbrokermanager_p.h"
#include "support/log_capture.h"
#include "support/watchdog.h"

namespace JX {
namespace {

using Broker = boost::shared_ptr<JXBroker>;

/// Three brokers, and a list that holds what a test wants it to.
class Manager : public ::testing::Test {
 protected:
  ~Manager() override { manager->killAllBroker(); }

  static Broker make(const std::string& name) {
    return JXBroker::createBroker(name, "127.0.0.1", 0, "", 0);
  }

  std::string names() const {
    std::string text;
    for (const Broker& broker : list.brokerList) text += broker ? broker->getName() : "-";
    return text;
  }

  const house::Watchdog watchdog{"a test of the broker manager"};
  const boost::shared_ptr<JXBrokerManager> manager = JXBrokerManager::getInstance();
  const Broker p = make("P"), q = make("Q"), r = make("R"), none;
  JXBrokerManagerPrivate list;
};

TEST_F(Manager, AWalkErasesAnEmptyEntryAndStepsOverItsFollower) {
  list.brokerList = {p, none, q, r};
  list.removeFromList(r);
  EXPECT_EQ(names(), "PQ");
  list.brokerList = {none, none, p};
  list.removeFromList(p);
  EXPECT_EQ(names(), "-");
  EXPECT_FALSE(p->isExiting()) << "taking off the list shuts nothing down";
  list.brokerList = {p, none, q};
  list.addBroker(q);
  EXPECT_EQ(names(), "PQQ") << "Q was stepped over";
  EXPECT_EQ(list.getBroker(3), none);
  EXPECT_EQ(list.getBroker(-1), none);
  list.brokerList = {none, q, r};
  EXPECT_EQ(list.getBrokerByName("Q"), none);
  EXPECT_EQ(list.getBrokerByName("Q"), q);
}

TEST_F(Manager, RemovingAStrangerShutsTheLastListedBrokerDownAndKeepsIt) {
  list.removeBroker(p);
  list.brokerList = {p, q};
  list.removeBroker(r);
  EXPECT_FALSE(p->isExiting());
  EXPECT_FALSE(r->isExiting());
  EXPECT_TRUE(q->isExiting());
  EXPECT_EQ(names(), "PQ");
  list.removeBroker(p);
  EXPECT_TRUE(p->isExiting());
  EXPECT_EQ(names(), "Q");
}

TEST_F(Manager, TheKillingSpreeGoesFromTheOldestOnAndAlwaysEnds) {
  list.brokerList = {none, p, q, r};  // which stay listed: they are of another manager
  q->shutdown();
  gv::log::setLevel(gv::log::Level::Verbose, "JXBroker.manager");
  const house::LogCapture log;
  list.killAllBroker();
  std::string texts;
  for (const auto& record : log.records())
    if (record.category == "JXBroker.manager" && record.function == "killAllBroker")
      texts += record.text + "\n";
  EXPECT_EQ(texts,
            "killing All Broker\nKilling broker P\nKilling broker Q\nKilling broker R\n"
            "JXBroker Killing spree done.\n");
  EXPECT_TRUE(p->isExiting() && r->isExiting());
}

}  // namespace
}  // namespace JX
