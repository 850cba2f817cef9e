#include "src/net/patience.h"

#include <gtest/gtest.h>

namespace gv::net {
namespace {

using std::chrono::microseconds;

constexpr microseconds brief(5);

/// How many of so many waits that are not worth polling for are polled for nevertheless.
int tries(Patience& patience, int waits) {
  int count = 0;
  for (int i = 0; i < waits; ++i) {
    patience.waited(brief);
    if (patience.next().count() == 0) {
      patience.notPolled();
    } else {
      patience.polled(false, microseconds(100));
      ++count;
    }
  }
  return count;
}

void pay(Patience& patience, microseconds time) {
  patience.polled(true, time);
}

TEST(Patience, PollsForWhatCameSoonOfLateAndAsLongAsThatTook) {
  Patience patience;
  EXPECT_EQ(patience.next(), microseconds(0));  // nothing is known yet
  patience.waited(brief);
  EXPECT_EQ(patience.next(), microseconds(20));
  pay(patience, microseconds(40));
  EXPECT_EQ(patience.next(), microseconds(80));
  pay(patience, microseconds(90));
  EXPECT_EQ(patience.next(), microseconds(100));
  pay(patience, brief);
  EXPECT_EQ(patience.next(), microseconds(20));
  patience.waited(microseconds(10'000));
  EXPECT_EQ(patience.next(), microseconds(0));
}

TEST(Patience, TriesAgainNowAndThenWhatWasInVain) {
  Patience patience;
  EXPECT_EQ(tries(patience, 3), 3);
  EXPECT_EQ(tries(patience, 80), 10);
  pay(patience, brief);
  EXPECT_EQ(tries(patience, 3), 3);
}

}  // namespace
}  // namespace gv::net
