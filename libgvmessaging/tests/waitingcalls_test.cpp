#include "src/net/waitingcalls.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>

namespace gv::net {
namespace {

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
  while (refused.empty()) {
    EXPECT_FALSE(waiting.areDue(false));
    EXPECT_FALSE(waiting.take(false, refused));
    std::this_thread::yield();
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
  std::size_t count = refused.size();
  while (waiting.areThere()) {
    EXPECT_LE(std::exchange(refused, {}).size(), 32u);
    EXPECT_FALSE(waiting.take(false, refused));
    count += refused.size();
  }
  EXPECT_FALSE(waiting.areDue(true));
  EXPECT_EQ(count, 75u);
}

}  // namespace
}  // namespace gv::net
