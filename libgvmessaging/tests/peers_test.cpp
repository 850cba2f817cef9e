// How sessions reach each other.

#include "src/session/peers.h"

#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <vector>

#include "foreignsession.h"
#include "support/rawpeer.h"
#include "support/rounds.h"
#include "support/watchdog.h"

namespace gv {
namespace {

using house::BlackHole;
using testing::AllOf;
using testing::HasSubstr;
using namespace std::chrono_literals;

constexpr int guardMs = 20'000;

ServiceInfo serviceOf(const std::string& session, std::vector<Url> endpoints) {
  return {"Service", 2, os::machineId(), 1, session, std::move(endpoints)};
}

class Reaching : public testing::Test {
 protected:
  house::Watchdog watchdog{"a test with peers"};
  ForeignSession a{"a"}, b{"b"};
};

TEST_F(Reaching, PassesByAddressesThatAreDeadSilentOrSomebodyElses) {
  const BlackHole holes[3];
  const house::RawListener deaf;  // connects, by the system's queue, and never speaks
  const ForeignSession other("c");
  const auto start = std::chrono::steady_clock::now();
  const auto reached = a.peers->reach(
      serviceOf("b", {holes[0].listening.url(), deaf.url(), "tcp://127.0.0.1:1", other.url(),
                      holes[1].listening.url(), holes[2].listening.url(), b.url()}));
  EXPECT_EQ(reached.value(guardMs)->peer().sessionId, "b");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
}

TEST_F(Reaching, FailsWithTheCauseOfEachAddressAndWithinABound) {
  const BlackHole hole;
  const ForeignSession other("c");
  const auto start = std::chrono::steady_clock::now();
  const std::string error =
      a.peers
          ->reach(serviceOf("b", {hole.listening.url(), "tcp://127.0.0.1:1", other.url(),
                                  "tcp://no-such-host.invalid:1"}))
          .error(guardMs);
  EXPECT_THAT(error, HasSubstr("no-such-host.invalid"));
  EXPECT_THAT(
      a.peers->reach(serviceOf("b", {hole.listening.url(), "tcp://127.0.0.1:1", other.url()}))
          .error(guardMs),
      AllOf(HasSubstr(hole.listening.url() + ": cannot connect"),
            HasSubstr("127.0.0.1:1: Connection refused"),
            HasSubstr(other.url().str() + ": another session answered")));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_THAT(a.peers->reach(serviceOf("b", {other.url()})).error(guardMs),
              HasSubstr(": another session answered"));
  EXPECT_THAT(a.peers->reach(serviceOf("b", {})).error(guardMs), HasSubstr("no endpoint"));
}

TEST_F(Reaching, LeavesLoopbackAddressesOfOtherMachinesAlone) {
  ForeignSession far("far", "another machine");
  EXPECT_THAT(far.peers->reach(serviceOf("b", {b.url()})).error(guardMs), HasSubstr("no endpoint"));
}

TEST_F(Reaching, EndsWhenThePeersAreClosed) {
  const BlackHole hole;
  const auto reached = a.peers->reach(serviceOf("b", {hole.listening.url()}));
  a.peers->close("enough").value(guardMs);
  EXPECT_EQ(reached.error(0), "enough");
  EXPECT_TRUE(a.peers->reach(serviceOf("b", {b.url()})).hasError(guardMs));
}

TEST_F(Reaching, AtOnceFromBothSidesLeadsBothToTheSameConnection) {
  for (int round = 0; round < house::rounds(200); ++round) {
    ForeignSession x("x"), y("y");
    const ServiceInfo atX = serviceOf("x", {x.url()}), atY = serviceOf("y", {y.url()});
    const auto toY = x.peers->reach(atY), toX = y.peers->reach(atX);
    ASSERT_EQ(toY.value(guardMs)->peer().sessionId, "y");
    ASSERT_EQ(toX.value(guardMs)->peer().sessionId, "x");
    // Both ends have each connection when calls over both have been answered.
    for (const auto& one : {toX.value(), toY.value()})
      rpc::RemoteObject::make(one, 5).wait(guardMs);
    const auto fromX = x.peers->reach(atY).value(guardMs),
               fromY = y.peers->reach(atX).value(guardMs);
    ASSERT_NE(fromX->role(), fromY->role()) << "two ends of one connection";
    ASSERT_TRUE(fromX->isOpen() && fromY->isOpen());
  }
}

}  // namespace
}  // namespace gv
