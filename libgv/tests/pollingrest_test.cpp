#include "src/pollingrest.h"

#include <gtest/gtest.h>

namespace gv::detail {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

/// Times are in milliseconds from some moment on.
struct PollingRests : testing::Test {
  const PollingRest::Clock::time_point begin = PollingRest::Clock::now();
  PollingRest rest;

  void gaveWay(milliseconds at, std::chrono::microseconds kept) {
    rest.gaveWay(begin + at, begin + at + kept);
  }
  bool isOn(milliseconds at) { return rest.isOn(begin + at); }
};

TEST_F(PollingRests, FollowWhereOthersKeepTheProcessorAndCountItOnce) {
  EXPECT_FALSE(isOn(0ms));
  gaveWay(0ms, 100us);
  EXPECT_FALSE(isOn(0ms));
  for (int threads = 0; threads < 8; ++threads) gaveWay(1ms, 3ms);
  EXPECT_TRUE(isOn(5ms));
  EXPECT_FALSE(isOn(6ms));
}

TEST_F(PollingRests, AreLongerTheOftenerThatHappens) {
  auto now = 0ms;
  auto length = 2ms;
  for (int times = 0; times < 10; ++times) {
    gaveWay(now, 3ms);
    EXPECT_TRUE(isOn(now + 3ms + length - 1ms)) << times;
    now += 3ms + length;
    EXPECT_FALSE(isOn(now)) << times;
    length = std::min(2 * length, 250ms);
  }
  now += 1s;  // a quiet time
  gaveWay(now, 3ms);
  EXPECT_FALSE(isOn(now + 5ms));
}

}  // namespace
}  // namespace gv::detail
