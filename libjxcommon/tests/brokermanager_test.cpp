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

/// What a walk over a list ("-" is an empty entry) looks at: the first entry, and each one whose
/// predecessor was not looked at and found empty.
std::vector<std::size_t> lookedAt(const std::string& list) {
  std::vector<std::size_t> places;
  for (std::size_t i = 0; i < list.size(); ++i)
    if (places.empty() || places.back() + 1 != i || list[i - 1] != '-') places.push_back(i);
  return places;
}

/// The list after a walk that seeks `sought`; `wasFound` and `at`, the place of the match or else
/// that of what was looked at last, tell the rest.
struct Walk {
  std::string list;
  bool wasFound = false;
  std::size_t at = 0;

  Walk(const std::string& before, char sought) {
    std::string kept = before;
    for (const std::size_t place : lookedAt(before)) {
      if (wasFound) break;
      at = place;
      wasFound = before[place] == sought;
      if (before[place] == '-') kept[place] = '!';
    }
    list = kept;
  }
  /// Without what was erased; `alsoAt` is erased too.
  std::string without(std::size_t alsoAt) const {
    std::string rest = list;
    if (alsoAt < rest.size()) rest[alsoAt] = '!';
    std::erase(rest, '!');
    return rest;
  }
};

TEST_F(Manager, WalksEraseTheEmptyEntriesThatTheyMeetAndStepOverTheNext) {
  constexpr std::size_t nowhere = 99;
  std::vector<std::string> lists = {""};
  for (std::size_t i = 0; lists[i].size() < 4; ++i)
    for (const char entry : {'-', 'P', 'Q', 'R'}) lists.push_back(lists[i] + entry);
  const auto brokerOf = [&](char entry) {
    return entry == 'P' ? p : entry == 'Q' ? q : entry == 'R' ? r : none;
  };
  for (const std::string& before : lists) {
    const auto after = [&](const auto& operation) {
      list.brokerList.clear();
      for (const char entry : before) list.brokerList.push_back(brokerOf(entry));
      operation();
      return names();
    };
    for (const char sought : {'-', 'P', 'Q'}) {
      const Walk walk(before, sought);
      const Broker broker = brokerOf(sought);
      const std::string at = "'" + before + "', seeking " + sought;
      EXPECT_EQ(after([&] { list.addBroker(broker); }),
                walk.without(nowhere) + (walk.wasFound ? "" : std::string(1, sought)))
          << at;
      // An empty one takes the entry behind it along.
      EXPECT_EQ(after([&] { list.removeFromList(broker); }),
                walk.without(!walk.wasFound  ? nowhere
                             : sought == '-' ? walk.at + 1
                                             : walk.at))
          << at;
      if (sought == '-') continue;
      EXPECT_EQ(after([&] { EXPECT_FALSE(list.getBrokerByParentIPPort("127.0.0.1", 1)); }), before);
      Broker found;
      EXPECT_EQ(after([&] { found = list.getBrokerByName(std::string(1, sought)); }),
                walk.without(nowhere))
          << at;
      EXPECT_EQ(found, walk.wasFound ? broker : none) << at;
    }
    Broker first, third;
    const bool startsEmpty = before.starts_with('-');
    EXPECT_EQ(after([&] { first = list.xGetRandomBroker(); }), before.substr(startsEmpty));
    EXPECT_EQ(first, brokerOf(before.empty() ? '-' : before[0])) << before;
    EXPECT_EQ(
        after([&] { third = list.getBroker(2); }),
        before.size() > 2 && before[2] == '-' ? before.substr(0, 2) + before.substr(3) : before);
    EXPECT_EQ(third, brokerOf(before.size() > 2 ? before[2] : '-')) << before;
    EXPECT_EQ(after([&] { EXPECT_EQ(list.getBroker(-1), none); }), before);
  }
  EXPECT_FALSE(p->isExiting() || q->isExiting()) << "none of these shuts a broker down";
}

TEST_F(Manager, RemovingAStrangerShutsTheLastListedBrokerDownAndKeepsIt) {
  list.removeBroker(p);
  for (const auto& entries : {std::vector{q, none}, std::vector{q, none, r}, std::vector{none}}) {
    list.brokerList = entries;
    list.removeBroker(p);
  }
  EXPECT_FALSE(p->isExiting() || q->isExiting() || r->isExiting()) << "an empty one was the last";
  list.brokerList = {q, none, r};
  list.removeBroker(none);
  EXPECT_EQ(names(), "Q");
  EXPECT_FALSE(r->isExiting());
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
  list.brokerList = {none, p,    none, q,
                     none, none, r,    none};  // which stay listed: they are of another manager
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
  EXPECT_EQ(names(), "-P-Q--R-");
}

}  // namespace
}  // namespace JX
