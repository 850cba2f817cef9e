#include "src/poolpolicy.h"

#include <gtest/gtest.h>

namespace gv::detail {
namespace {

using std::chrono::milliseconds;

/// Two threads of at most four, both busy; one task has just been queued.
PoolView busy() {
  PoolView view;
  view.minThreads = 2;
  view.maxThreads = 4;
  view.threads = 2;
  view.queued = 1;
  return view;
}

TEST(PoolPolicy, AThreadUnderWayCountsForTheTaskItComesFor) {
  PoolView view = busy();
  view.threads = view.arriving = 1;
  EXPECT_FALSE(growsAtOnce(view));
  view.queued = 2;
  EXPECT_TRUE(growsAtOnce(view));
}

TEST(PoolPolicy, AQueueThatMovesGetsMoreTimeThanAStalledOne) {
  PoolView view = busy();
  const struct {
    int longestWait, sinceLastStart;
    bool grows;
  } rows[] = {{9, 9, false}, {10, 10, true}, {99, 1, false}, {100, 1, true}};
  for (const auto& row : rows) {
    view.longestWait = milliseconds(row.longestWait);
    view.sinceLastStart = milliseconds(row.sinceLastStart);
    EXPECT_EQ(growsWhenStalled(view), row.grows) << row.longestWait;
  }
}

TEST(PoolPolicy, KeepsTheMinimumBesideBlockedThreads) {
  PoolView view = busy();
  view.threads = 4;
  EXPECT_TRUE(mayRetire(view));
  view.blocked = 2;
  EXPECT_FALSE(mayRetire(view));
}

}  // namespace
}  // namespace gv::detail
