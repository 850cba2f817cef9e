#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include <gv/eventloop.h>

#include "support/watchdog.h"

namespace {

TEST(Invariants, ABlockedWaitRunsNothingElseOnItsThread) {
  const house::Watchdog watchdog("blocked wait");
  gv::EventLoop::Settings settings;
  settings.minThreads = settings.maxThreads = 1;
  gv::EventLoop loop(settings);
  gv::Promise<void> release;
  bool isWaiting = false;  // all on the one thread
  const auto waiter = loop.async([&, release = release.future()] {
    const auto other = loop.async([&] { return isWaiting; });
    isWaiting = true;
    release.wait();
    isWaiting = false;
    return other;
  });
  while (loop.figures().blocked == 0) std::this_thread::yield();
  release.setValue();
  EXPECT_FALSE(waiter.value().value());
}

TEST(Invariants, ALateCallbackRunsWithNoLockHeld) {
  const house::Watchdog watchdog("late callback");
  constexpr auto here = gv::FutureCallbackType::Sync;
  int calls = 0;
  gv::makeReadyFuture(1).connect(
      [&](gv::Future<int> ready) { ready.connect([&](gv::Future<int>) { ++calls; }, here); }, here);
  EXPECT_EQ(calls, 1);
}

/// Uses the loop as it goes: a lock of the loop held there would never come free.
struct Reentrant {
  gv::EventLoop* loop;
  int* gone;
  ~Reentrant() {
    loop->post([] {});
    ++*gone;
  }
};

TEST(Invariants, TasksAreDestroyedWithNoLockHeld) {
  const house::Watchdog watchdog("destroyed tasks");
  int gone = 0;
  {
    gv::EventLoop loop({});
    const auto make = [&] {
      return [held = std::shared_ptr<Reentrant>(new Reentrant{&loop, &gone})] {};
    };
    EXPECT_TRUE(loop.post(make(), std::chrono::hours(1)).cancel());
    EXPECT_EQ(gone, 1);
    loop.post(make(), std::chrono::hours(1));
  }
  EXPECT_EQ(gone, 2) << "dropped at the end of the loop";
}

}  // namespace
