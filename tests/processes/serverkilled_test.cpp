// A server dies in the middle of many calls, over and over.

#include <gtest/gtest.h>
#include <signal.h>

#include <boost/make_shared.hpp>
#include <string>
#include <thread>
#include <vector>

#include <gvmessaging/session.h>

#include "ledger.h"
#include "observe.h"
#include "support/child_process.h"
#include "support/link.h"
#include "support/rounds.h"
#include "support/sanitized.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using State = gv::FutureException::State;

constexpr int callsInFlight = 200;
constexpr int guardMs = 20'000;
constexpr int endWithinMs = house::isSanitized ? 5000 : 1000;

/// What is wrong with how a call ended, given what its body did; nothing where it is right.
std::string faultOf(const gv::Future<int>& call, int nonce, const Ledger::Entry& entry) {
  const int begun = entry.begun;
  if (begun > 1) return "ran twice";
  if (call.hasValue(0))
    return call.value(0) == nonce && begun == 1 && entry.ended == 1 ? "" : "a value of no run";
  const State state = call.errorState(0);
  if (state == State::NotSent) return begun == 0 ? "" : "ran though it was never sent";
  return state == State::ConnectionLost ? "" : "failed with: " + call.error(0);
}

TEST(AServerKilledDuringCalls, EndsThemAllAtOnceRunsNoneTwiceAndIsFoundWhenStartedAnew) {
  const house::Watchdog watchdog("servers killed", std::chrono::seconds(110));
  const auto directory = boost::make_shared<gv::Session>();
  directory->listenStandalone("tcp://127.0.0.1:0").value(guardMs);
  const house::Link link(directory->url().port());
  const std::string url = link.url();
  const auto client = boost::make_shared<gv::Session>();
  client->connect(url).value(guardMs);
  Ledger ledger;
  int slowestMs = 0;
  int values = 0;
  const int rounds = house::rounds(20);
  for (int round = 0; round < rounds; ++round) {
    house::ChildProcess process(TEST_PEER,
                                {"serve", "Server", "tcp://127.0.0.1:0", ledger.path(), url});
    process.waitForLine("listening on");
    const auto server = client->service("Server").value(guardMs);
    const int first = round * callsInFlight;
    std::vector<gv::Future<int>> calls;
    for (int i = 0; i < callsInFlight; ++i) calls.push_back(server.async<int>("work", first + i));
    const int killedAt = ledger.begun() + round * 37 % (callsInFlight / 2);
    while (ledger.begun() < killedAt) std::this_thread::yield();
    process.kill(SIGKILL);
    const auto killed = Clock::now();
    for (int i = 0; i < callsInFlight; ++i) {
      const auto& call = calls[static_cast<std::size_t>(i)];
      ASSERT_NE(call.wait(guardMs), gv::FutureState::Running) << "call " << i;
      ASSERT_EQ(faultOf(call, first + i, ledger[first + i]), "") << "call " << i;
      values += call.hasValue(0) ? 1 : 0;
    }
    slowestMs = std::max(slowestMs, millisecondsSince(killed));
    ASSERT_TRUE(becomesTrue([&] { return directory->services().value(guardMs).size() == 1; }));
    ASSERT_TRUE(client->service("Server").hasError(guardMs));
  }
  EXPECT_LT(slowestMs, endWithinMs);
  EXPECT_LT(values, rounds * callsInFlight) << "no server was killed during its calls";
  RecordProperty("slowestMilliseconds", slowestMs);
  RecordProperty("callsThatHadEnded", values);
  client->close().wait(guardMs);
  directory->close().wait(guardMs);
}

}  // namespace
}  // namespace processes
