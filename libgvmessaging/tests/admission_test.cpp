#include "src/net/admission.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/rounds.h"

namespace gv::net {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

Admission::Time at(std::chrono::milliseconds time) {
  return Admission::Time(time);
}
std::string address(unsigned number) {
  return "10.0.0." + std::to_string(number);
}

// Fills all 64 places at time 0: ids 0 to 63, 8 each of the addresses 0 to 7.
Admission full() {
  Admission admission{wire::Limits(), 20'000};
  for (unsigned id = 0; id < 64; ++id)
    EXPECT_THAT(admission.arrived(id, address(id / 8), at(0ms)).start, ElementsAre(id));
  return admission;
}

TEST(Admission, ParksTheNinthOfOneAddressOnly) {
  Admission admission{wire::Limits(), 20'000};
  for (unsigned id = 0; id < 9; ++id) static_cast<void>(admission.arrived(id, address(1), at(0ms)));
  EXPECT_EQ(8u, admission.unfinished());
  EXPECT_EQ(1u, admission.parked());
  EXPECT_THAT(admission.arrived(20, address(2), at(1ms)).start, ElementsAre(20));
  EXPECT_THAT(admission.finished(20, at(2ms)).start, IsEmpty());
  EXPECT_THAT(admission.finished(3, at(2ms)).start, ElementsAre(8));
}

TEST(Admission, TakesTheNewestParkedNext) {
  Admission admission = full();
  for (unsigned id = 100; id < 103; ++id)
    static_cast<void>(admission.arrived(id, address(id), at(1ms)));
  EXPECT_THAT(admission.finished(0, at(2ms)).start, ElementsAre(102));
  EXPECT_THAT(admission.finished(1, at(2ms)).start, ElementsAre(101));
}

TEST(Admission, DropsTheOldestParkedBeyondTheLimit) {
  Admission admission = full();
  for (unsigned id = 100; id < 100 + 256; ++id)
    EXPECT_THAT(admission.arrived(id, address(id), at(1ms)).close, IsEmpty());
  EXPECT_THAT(admission.arrived(999, address(99), at(1ms)).close, ElementsAre(100));
  EXPECT_EQ(256u, admission.parked());
}

TEST(Admission, GivesAwayThePlaceOfASlowHandshakeToAParkedOne) {
  Admission admission = full();
  EXPECT_FALSE(admission.nextLook());
  EXPECT_THAT(admission.arrived(100, address(99), at(500ms)).start, IsEmpty());
  ASSERT_EQ(at(1000ms), admission.nextLook());
  EXPECT_THAT(admission.timePassed(at(999ms)).close, IsEmpty());
  const auto decision = admission.timePassed(at(1000ms));
  EXPECT_THAT(decision.close, ElementsAre(0));
  EXPECT_THAT(decision.start, ElementsAre(100));
  EXPECT_FALSE(admission.nextLook());
  EXPECT_THAT(admission.timePassed(at(9000ms)).close, IsEmpty()) << "nobody waits";
}

TEST(Admission, HoldsAQuarterOfTheDescriptorsAndLeavesPlacesToOtherAddresses) {
  struct Case {
    std::size_t descriptors, ofOneAddress, unfinished, parked;
  };
  for (const auto& [descriptors, ofOneAddress, unfinished, parked] :
       {Case{8, 1, 2, 2}, Case{64, 4, 8, 8}, Case{1024, 8, 64, 192}, Case{20'000, 8, 64, 256}}) {
    Admission admission{wire::Limits(), descriptors};
    for (unsigned id = 0; id < 1000; ++id)
      static_cast<void>(admission.arrived(id, address(1), at(0ms)));
    EXPECT_EQ(ofOneAddress, admission.unfinished()) << descriptors;
    for (unsigned id = 1000; id < 2000; ++id)
      static_cast<void>(admission.arrived(id, address(id), at(0ms)));
    EXPECT_EQ(unfinished, admission.unfinished()) << descriptors;
    EXPECT_EQ(parked, admission.parked()) << descriptors;
  }
}

TEST(Admission, WaitsShorterForTheSlowWhileNoMoreCanBeParked) {
  Admission admission = full();
  for (unsigned id = 100; id < 100 + 256; ++id)
    static_cast<void>(admission.arrived(id, address(id), at(1ms)));
  EXPECT_THAT(admission.timePassed(at(249ms)).close, IsEmpty());
  EXPECT_EQ(at(250ms), admission.nextLook());
  const auto decision = admission.timePassed(at(250ms));
  EXPECT_THAT(decision.start, ElementsAre(355));
  EXPECT_EQ(at(1000ms), admission.nextLook()) << "there is room again";
}

TEST(Admission, WithoutDescriptorsDropsTheOldestParkedElseASlowHandshake) {
  Admission admission{wire::Limits(), 64};
  for (unsigned id = 0; id < 6; ++id) static_cast<void>(admission.arrived(id, address(1), at(0ms)));
  EXPECT_THAT(admission.outOfDescriptors(at(0ms)).close, ElementsAre(4));
  EXPECT_THAT(admission.outOfDescriptors(at(0ms)).close, ElementsAre(5));
  EXPECT_THAT(admission.outOfDescriptors(at(249ms)).close, IsEmpty());
  EXPECT_THAT(admission.outOfDescriptors(at(250ms)).close, ElementsAre(0));
  EXPECT_EQ(3u, admission.unfinished());
}

// Whatever happens, each connection is told to start once at most, and none is lost.
TEST(Admission, KeepsItsBooksThroughRandomEvents) {
  std::mt19937 random(7);
  Admission admission{wire::Limits(), 20'000};
  std::set<Admission::Id> parked, unfinished;
  const auto apply = [&](const Admission::Decision& decision) {
    for (const auto id : decision.close) EXPECT_EQ(1u, parked.erase(id) + unfinished.erase(id));
    for (const auto id : decision.start) {
      EXPECT_EQ(1u, parked.erase(id));
      unfinished.insert(id);
    }
  };
  const auto steps = static_cast<unsigned>(house::rounds(20'000));
  for (unsigned step = 0; step < steps; ++step) {
    const auto now = at(std::chrono::milliseconds(step));
    if (random() % 3 != 0) {
      parked.insert(step);
      apply(admission.arrived(step, address(random() % 20), now));
    } else if (!unfinished.empty()) {
      auto& from = random() % 4 == 0 && !parked.empty() ? parked : unfinished;
      const auto id = *std::next(from.begin(), random() % from.size());
      from.erase(id);
      apply(admission.finished(id, now));
    }
    ASSERT_EQ(parked.size(), admission.parked());
    ASSERT_EQ(unfinished.size(), admission.unfinished());
    ASSERT_LE(unfinished.size(), 64u);
    ASSERT_GT(admission.nextLook().value_or(Admission::Time::max()), now);
  }
}

}  // namespace
}  // namespace gv::net
