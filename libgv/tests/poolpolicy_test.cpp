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

TEST(PoolPolicy, GrowsAtOnceUpToTheMinimum) {
  PoolView view = busy();
  EXPECT_FALSE(growsAtOnce(view));
  view.threads = 1;
  EXPECT_TRUE(growsAtOnce(view));
  view.arriving = 1;  // somebody comes for the task
  EXPECT_FALSE(growsAtOnce(view));
  view.queued = 2;
  EXPECT_TRUE(growsAtOnce(view));
}

TEST(PoolPolicy, AnnouncedWaitIsReplacedAtOnceWhileTasksWait) {
  PoolView view = busy();
  view.blocked = 1;
  EXPECT_TRUE(growsAtOnce(view));
  view.queued = 0;
  EXPECT_FALSE(growsAtOnce(view));
  view.queued = 9;
  view.threads = view.blocked = view.maxThreads;
  EXPECT_FALSE(growsAtOnce(view));
}

TEST(PoolPolicy, StalledTasksBringAThread) {
  PoolView view = busy();
  view.longestWait = milliseconds(9);
  view.sinceLastStart = milliseconds(9);
  EXPECT_FALSE(growsWhenStalled(view));
  view.longestWait = view.sinceLastStart = milliseconds(10);
  EXPECT_TRUE(growsWhenStalled(view));
  view.threads = view.maxThreads;
  EXPECT_FALSE(growsWhenStalled(view));
}

TEST(PoolPolicy, QueueThatMovesGetsMoreTime) {
  PoolView view = busy();
  view.longestWait = milliseconds(99);
  view.sinceLastStart = milliseconds(1);
  EXPECT_FALSE(growsWhenStalled(view));
  view.longestWait = milliseconds(100);
  EXPECT_TRUE(growsWhenStalled(view));
}

TEST(PoolPolicy, RefusesOnlyWhenNothingCanRun) {
  PoolView view = busy();
  view.threads = view.blocked = 3;
  EXPECT_FALSE(refusesCalls(view));
  view.threads = 4;
  EXPECT_FALSE(refusesCalls(view));
  view.blocked = 4;
  EXPECT_TRUE(refusesCalls(view));
}

TEST(PoolPolicy, WarnsAtTheCeilingOnly) {
  PoolView view = busy();
  view.longestWait = milliseconds(500);
  EXPECT_FALSE(warnsOfCeiling(view));
  view.threads = view.maxThreads;
  EXPECT_TRUE(warnsOfCeiling(view));
  view.longestWait = milliseconds(5);
  EXPECT_FALSE(warnsOfCeiling(view));
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
