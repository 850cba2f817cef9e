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

TEST(PoolPolicy, AdmitsGuestsBeyondTheCeilingWhileSomeThreadRuns) {
  const struct {
    unsigned threads, blocked, guests;
    bool isAdmitted;
  } rows[] = {{3, 3, 0, true}, {4, 4, 0, false}, {4, 3, 0, true},
              {7, 6, 3, true}, {8, 7, 4, false}, {3, 3, 3, true}};
  for (const auto& row : rows) {
    PoolView view = busy();
    view.threads = row.threads;
    view.blocked = row.blocked;
    view.guests = row.guests;
    EXPECT_EQ(admitsGuest(view), row.isAdmitted) << row.threads << ", " << row.blocked;
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
