#include <gv/detail/poll.h>

#include <gtest/gtest.h>

#include <thread>

namespace gv::detail {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// How long nobody polls.
Clock::duration rest() {
  const auto begin = Clock::now();
  while (!Pollers::enter()) std::this_thread::sleep_for(100us);
  Pollers::leave();
  return Clock::now() - begin;
}

TEST(Pollers, RestWhereOthersKeepTheProcessorAndForLongerTheOftenerTheyDo) {
  const auto keptFor = [](Clock::duration time) { Pollers::giveWay(Clock::now() - time); };
  rest();  // of what the machine does beside
  keptFor(1ms);
  EXPECT_FALSE(Pollers::enter());
  int looks = 0;
  const auto isOverAtLast = [&looks] { return ++looks > 1; };
  EXPECT_FALSE(pollBriefly(isOverAtLast));
  EXPECT_GE(rest(), 1ms);
  for (int again = 0; again < 4; ++again) {
    keptFor(1ms);
    rest();
  }
  keptFor(1ms);
  EXPECT_GE(rest(), 50ms);
  looks = 0;
  EXPECT_TRUE(pollBriefly(isOverAtLast));
}

}  // namespace
}  // namespace gv::detail
