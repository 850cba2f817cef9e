// The master's table of services, without connections.

#include "src/directory/directorytable.h"

#include <gmock/gmock.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gv/future.h>

#include "src/directory/endpoints.h"
#include "support/watchdog.h"

namespace gv::directory {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

constexpr int guardMs = 20'000;

Registrant peer(std::uint64_t connection, const std::string& address = "127.0.0.1") {
  return {connection, "machine", 100, "session " + std::to_string(connection), address};
}

template <class F>
void runTogether(unsigned count, F body) {
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < count; ++i) threads.emplace_back(body, i);
  for (auto& thread : threads) thread.join();
}

class DirectoryTest : public testing::Test {
 protected:
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const ServiceInfo& info : table.list()) names.push_back(info.name());
    return names;
  }
  unsigned offer(const Registrant& who, const std::string& name) {
    const unsigned id = table.reserve(who, name);
    table.makeReady(who, id);
    return id;
  }

  house::Watchdog watchdog{"a test of the directory"};
  DirectoryTable table{peer(0, "")};
};

TEST_F(DirectoryTest, GivesANameToOneOfManyWhoAskAtOnce) {
  for (unsigned round = 0; round < 1'000; ++round) {
    std::atomic<unsigned> winners{0}, winner{0};
    runTogether(4, [&](unsigned i) {
      try {
        winner = table.reserve(peer(i + 1), "Contested");
        ++winners;
      } catch (const std::runtime_error&) {
      }
    });
    ASSERT_EQ(winners, 1u);
    ASSERT_EQ(winner, 2 + round) << "ids rise and are never used again";
    for (unsigned i = 1; i <= 4; ++i) table.connectionLost(i);
  }
}

TEST_F(DirectoryTest, ShowsAServiceFromReadyToWithdrawnAndKeepsItsNameAllTheWhile) {
  const unsigned id = table.reserve(peer(1), "Slow");  // and its registrant stops here
  offer(peer(2), "Other");
  EXPECT_THAT(names(), ElementsAre("ServiceDirectory", "Other"));
  EXPECT_THAT([&] { table.find("Slow"); }, ThrowsMessage<std::runtime_error>(HasSubstr("'Slow'")));
  EXPECT_THROW(table.reserve(peer(2), "Slow"), std::runtime_error);
  table.makeReady(peer(1), id);
  EXPECT_EQ(table.find("Slow").serviceId(), id);
  EXPECT_EQ(table.find("Slow").sessionId(), "session 1");
  table.withdraw(peer(1), id);
  EXPECT_THROW(table.makeReady(peer(1), id), std::runtime_error);
  EXPECT_GT(offer(peer(2), "Slow"), id);
}

TEST_F(DirectoryTest, LetsOnlyTheConnectionThatRegisteredChangeAnEntry) {
  const unsigned id = offer(peer(1), "Mine");
  EXPECT_THROW(table.withdraw(peer(2), id), std::runtime_error);
  EXPECT_THROW(table.makeReady(peer(2), id), std::runtime_error);
  EXPECT_THROW(table.withdraw(peer(0, ""), 1), std::runtime_error) << "the directory itself";
  Registrant imposter = peer(3);
  imposter.sessionId = "session 1";
  EXPECT_THROW(table.reserve(imposter, "Yours"), std::runtime_error);
  EXPECT_THROW(table.announce(imposter, {"tcp://127.0.0.1:1"}), std::runtime_error);
  table.connectionLost(1);
  const unsigned next = offer(peer(2), "Mine");
  table.connectionLost(1);  // late, of an owner before
  EXPECT_EQ(table.find("Mine").serviceId(), next);
}

TEST_F(DirectoryTest, TellsOfChangesInTheirOrderAndOfAdditionsWhenTheyAreFound) {
  constexpr unsigned perThread = 500, threads = 4;
  std::vector<unsigned> told;
  unsigned alive = 0, wrong = 0, missing = 0;
  const Promise<void> all;
  std::atomic<unsigned> lastRemoved{0}, stale{0};
  table.watch([&](const Notice& notice) {
    // One name: it is added and removed in turn, and its ids rise.
    wrong += notice.isAdded ? alive != 0 : alive != notice.serviceId;
    if (notice.isAdded && !told.empty()) wrong += notice.serviceId <= told.back();
    alive = notice.isAdded ? notice.serviceId : 0;
    if (!notice.isAdded) told.push_back(notice.serviceId);
    if (told.size() == perThread * threads) all.setValue();
  });
  runTogether(threads, [&](unsigned i) {
    for (unsigned done = 0; done < perThread;) {
      const unsigned before = lastRemoved;
      try {
        stale += table.find("Busy").serviceId() <= before;
      } catch (const std::runtime_error&) {
      }
      try {
        const unsigned id = offer(peer(i + 1), "Busy");
        missing += table.find("Busy").serviceId() != id;
        table.withdraw(peer(i + 1), id);
        for (unsigned last = lastRemoved;
             last < id && !lastRemoved.compare_exchange_weak(last, id);) {
        }
        ++done;
      } catch (const std::runtime_error&) {  // another thread has the name
      }
    }
  });
  all.future().value(guardMs);
  EXPECT_EQ(wrong, 0u);
  EXPECT_EQ(missing, 0u);
  EXPECT_EQ(stale, 0u) << "a look-up found what was withdrawn before it began";
}

TEST_F(DirectoryTest, BelievesEndpointsThatTheirPeerCanHave) {
  const struct {
    const char* from;
    const char* host;
    bool isBelieved;
  } cases[] = {
      {"127.0.0.1", "127.0.0.1", true},    {"127.0.0.1", "10.0.0.1", true},
      {"10.0.0.1", "127.0.0.1", true},     {"127.0.0.1", "::1", true},
      {"127.0.0.1", "10.0.0.2", false},    {"10.0.0.2", "10.0.0.2", true},
      {"10.0.0.2", "10.0.0.1", false},     {"10.0.0.2", "127.0.0.1", false},
      {"10.0.0.2", "10.0.0.3", false},     {"127.0.0.1", "robot.local", false},
      {"fe80::2%a", "fe80::2%b", true},    {"127.0.0.1", "fe80::1%b", true},
      {"10.0.0.2", "127.evil.org", false},
  };
  for (const auto& [from, host, isBelieved] : cases)
    EXPECT_EQ(canHave(from, host, {"10.0.0.1", "fe80::1%a"}), isBelieved) << from << " " << host;

  offer(peer(1, "192.0.2.7"), "Far");
  table.announce(peer(1, "192.0.2.7"), {"tcp://192.0.2.7:1", "tcp://192.0.2.8:1"});
  EXPECT_THAT(table.find("Far").endpoints(), ElementsAre(Url("tcp://192.0.2.7:1")));
  EXPECT_THROW(table.announce(peer(1), {"nonsense"}), std::runtime_error);
}

}  // namespace
}  // namespace gv::directory
