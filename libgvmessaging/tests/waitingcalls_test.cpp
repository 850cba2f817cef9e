#include "src/net/waitingcalls.h"

#include <gtest/gtest.h>

#include <thread>

namespace gv::net {
namespace {

using namespace std::chrono_literals;
using Flag = std::shared_ptr<std::atomic<bool>>;

Flag makeFlag(bool value = false) {
  return std::make_shared<std::atomic<bool>>(value);
}

TEST(WaitingCalls, ThatThePoolHasTakenTakeNoMemoryForLong) {
  WaitingCalls waiting;
  const auto held = std::make_shared<int>();
  waiting.add({[] {}, [] {}, makeFlag()});  // keeps its place
  for (int i = 0; i < 10'000; ++i) waiting.add({[held] {}, [held] {}, makeFlag(true)});
  EXPECT_LT(held.use_count(), 1000);
  std::vector<WaitingCalls::Call> refused;
  EXPECT_TRUE(waiting.take(true, refused));
  EXPECT_FALSE(waiting.take(true, refused));
  EXPECT_FALSE(waiting.areThere());
  EXPECT_EQ(held.use_count(), 1);
}

TEST(WaitingCalls, AreRefusedInPortionsWhenTheirTimeIsOverAndInNoOtherCase) {
  WaitingCalls waiting;
  for (int i = 0; i < 100; ++i) waiting.add({[] {}, [] {}, makeFlag(i % 4 == 1)});
  std::vector<WaitingCalls::Call> refused;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(waiting.take(false, refused));
  EXPECT_TRUE(refused.empty() || std::chrono::steady_clock::now() - start > 900ms);
  std::this_thread::sleep_until(start + 1100ms);  // when the time of all is over
  for (const std::size_t portion : {32u, 32u, 11u}) {
    refused.clear();
    EXPECT_FALSE(waiting.take(false, refused));
    EXPECT_EQ(refused.size(), portion);
    EXPECT_EQ(waiting.areLate(), portion == 32);
  }
  EXPECT_FALSE(waiting.areThere());
}

}  // namespace
}  // namespace gv::net
