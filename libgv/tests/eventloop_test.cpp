#include <gv/eventloop.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <latch>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/live_counter.h"
#include "support/log_capture.h"
#include "support/rounds.h"
#include "support/watchdog.h"

namespace {

using gv::EventLoop;
using gv::Future;
using gv::FutureException;
using gv::FutureState;
using gv::Promise;
using std::chrono::hours;
using std::chrono::milliseconds;

EventLoop::Settings sized(unsigned minThreads, unsigned maxThreads) {
  EventLoop::Settings settings;
  settings.minThreads = minThreads;
  settings.maxThreads = maxThreads;
  return settings;
}

/// Grows on announcements only: the monitor never helps out.
EventLoop::Settings announcedOnly(unsigned minThreads, unsigned maxThreads) {
  auto settings = sized(minThreads, maxThreads);
  settings.growAfter = hours(1);
  return settings;
}

class Loop : public ::testing::Test {
 protected:
  /// Looks until the loop stands so; the watchdog ends a look in vain.
  template <class Condition>
  static void waitUntil(const EventLoop& loop, Condition condition) {
    while (!condition(loop.figures())) std::this_thread::yield();
  }

  house::Watchdog watchdog_{"event loop"};
};

TEST_F(Loop, ThousandTasksThatWaitForLaterOnesEndAtOnceAndTheirThreadsRetire) {
  auto settings = announcedOnly(2, 1100);
  settings.retireAfter = milliseconds(1);
  EventLoop loop(settings);
  constexpr int count = 1000;
  std::vector<Promise<int>> awaited(count);
  std::vector<Future<int>> waiting;
  for (const auto& promise : awaited) {
    waiting.push_back(loop.async([future = promise.future()] { return future.value(); }));
  }
  for (const auto& promise : awaited) loop.post([promise] { promise.setValue(3); });
  for (const auto& future : waiting) EXPECT_EQ(future.value(), 3);
  waitUntil(loop, [](const auto& figures) { return figures.threads == 2; });
  EXPECT_EQ(loop.async([] { return 1; }).value(), 1);
}

TEST_F(Loop, TasksThatBlockUnannouncedAreFoundByTheMonitor) {
  EventLoop loop(sized(2, 1100));
  std::mutex mutex;
  std::condition_variable changed;
  bool isOpen = false;
  std::vector<Future<void>> blocked;
  for (int i = 0; i < house::rounds(100); ++i) {
    blocked.push_back(loop.async([&] {
      std::unique_lock lock(mutex);
      changed.wait(lock, [&] { return isOpen; });
    }));
  }
  loop.post([&] {
    const std::lock_guard lock(mutex);
    isOpen = true;
    changed.notify_all();
  });
  for (const auto& future : blocked) future.value();
}

TEST_F(Loop, CeilingQueuesWarnsAndRefusesCalls) {
  EventLoop loop(sized(1, 2));
  house::LogCapture capture;
  Promise<void> release;
  for (int i = 0; i < 2; ++i) loop.post([future = release.future()] { future.wait(); });
  waitUntil(loop, [](const auto& figures) { return figures.blocked == 2; });

  auto queued = loop.async([] { return 1; });
  EXPECT_FALSE(loop.tryPost([] { FAIL() << "was refused"; }, [] {}));
  EXPECT_NE(loop.refusalText().find("GV_EVENTLOOP_MAX_THREADS (2)"), std::string::npos);
  EXPECT_TRUE(capture.waitForText("1 tasks wait, the oldest for "));
  EXPECT_EQ(capture.count("all 2 threads (GV_EVENTLOOP_MAX_THREADS) are busy, 2 of them"), 1);
  EXPECT_EQ(loop.figures().threads, 2u);
  EXPECT_EQ(loop.figures().queued, 1u);

  release.setValue();
  EXPECT_EQ(queued.value(), 1);
  Promise<void> accepted;
  waitUntil(loop, [](const auto& figures) { return figures.blocked == 0; });
  EXPECT_TRUE(loop.tryPost([&] { accepted.setValue(); }, [] {}));
  accepted.future().value();
}

TEST_F(Loop, GuestsCountAsThreadsButServeNoTasks) {
  EventLoop loop(sized(1, 2));
  EventLoop::Guest first(loop);
  EXPECT_TRUE(loop.hasRoom());
  std::optional<EventLoop::Guest> second(loop);
  EXPECT_FALSE(loop.hasRoom());
  first.willBlock();
  EXPECT_EQ(loop.async([] { return 1; }).value(), 1) << "a guest is no thread for tasks";
  second->willBlock();
  EXPECT_TRUE(loop.tryPost([] {}, [] {})) << "the worker is not blocked";
  second->hasUnblocked();
  second.reset();
  first.hasUnblocked();
  EXPECT_EQ(loop.figures().blocked, 0u);
}

TEST_F(Loop, CallQueuedBehindThreadsThatBlockLaterIsRefused) {
  EventLoop loop(announcedOnly(1, 1));
  Promise<std::string> answer;
  Promise<void> posted;
  loop.post([&, canBlock = posted.future()] {
    while (!canBlock.isFinished()) std::this_thread::yield();
    answer.future().wait();
  });
  auto plain = loop.async([] { return 1; });
  EXPECT_TRUE(loop.tryPost([&] { answer.setValue("ran"); }, [&] { answer.setValue("refused"); }));
  posted.setValue();
  EXPECT_EQ(answer.future().value(), "refused");
  EXPECT_EQ(plain.value(), 1) << "only calls are refused";
}

TEST_F(Loop, LogHandlerThatBlocksOnAWarningStopsNoTimer) {
  EventLoop loop(sized(1, 2));
  std::latch gate(1);
  Promise<void> isBlocking;
  const auto handler = gv::log::addHandler("blocks", [&](const gv::log::Record& record) {
    if (record.text.find("tasks wait") == std::string::npos) return;
    isBlocking.setValue();
    gate.wait();
  });
  Promise<void> release;
  for (int i = 0; i < 3; ++i) loop.post([future = release.future()] { future.wait(); });
  isBlocking.future().value();
  auto delayed = loop.async([] { return 1; }, milliseconds(5));
  release.setValue();
  EXPECT_EQ(delayed.value(), 1);
  gate.count_down();
  gv::log::removeHandler(handler);
}

TEST_F(Loop, TimersGoOnWhileAThreadThatRetiresTakesLong) {
  auto settings = announcedOnly(1, 2);
  settings.retireAfter = milliseconds(0);
  EventLoop loop(settings);
  static std::atomic<bool> isRetiring{false};
  static std::latch gate(1);
  struct Slow {
    ~Slow() {
      isRetiring = true;
      gate.wait();
    }
  };
  Promise<void> release;
  for (int i = 0; i < 2; ++i) {
    loop.post([held = release.future()] {
      thread_local Slow slow;
      held.wait();
    });
  }
  waitUntil(loop, [](const auto& figures) { return figures.blocked == 2; });
  release.setValue();
  while (!isRetiring) std::this_thread::yield();
  EXPECT_EQ(loop.async([] { return 1; }, milliseconds(5)).value(), 1);
  gate.count_down();
}

TEST_F(Loop, TaskThatWaitsForItselfIsNamedAndStallsNothing) {
  EventLoop loop(announcedOnly(1, 2));
  house::LogCapture capture;
  Promise<Future<void>> given;
  auto self = loop.async([itself = given.future()] { itself.value().wait(200); });
  given.setValue(self);
  loop.async([] {}).value();
  self.value();
  EXPECT_EQ(capture.count("a task waits for its own future"), 1);
}

TEST_F(Loop, SurvivesWhatTasksThrow) {
  EventLoop loop(sized(1, 1));
  house::LogCapture capture;
  loop.post([] { throw std::runtime_error("task trouble"); });
  auto failed = loop.async([]() -> int { throw std::runtime_error("what it was"); });
  auto odd = loop.async([]() -> int { throw 5; });
  EXPECT_EQ(failed.error(), "what it was");
  EXPECT_EQ(odd.error(), "unknown exception");
  EXPECT_EQ(capture.count("task trouble"), 1);
  EXPECT_EQ(loop.async([] { return 2; }).value(), 2);
}

TEST_F(Loop, DelayedTasksRunInTheOrderOfTheirTimesNotBefore) {
  EventLoop loop(sized(1, 1));
  const auto start = std::chrono::steady_clock::now();
  std::vector<int> order;
  auto late = loop.async([&] { order.push_back(2); }, milliseconds(40));
  auto early = loop.async([&] { order.push_back(1); }, milliseconds(20));
  late.value();
  early.value();
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(40));
}

TEST_F(Loop, CanceledTaskNeverRunsAndLeavesNothing) {
  EventLoop loop(sized(1, 1));
  house::LiveCounter counter;
  EXPECT_FALSE(gv::TaskHandle().cancel());
  std::atomic<int> runs{0};
  auto task = [&runs, mark = house::LiveCounter::Mark(counter)] { ++runs; };
  auto delayed = loop.post(task, hours(1));
  Promise<void> release;
  auto blocker = loop.async([future = release.future()] { future.wait(); });
  waitUntil(loop, [](const auto& figures) { return figures.blocked == 1; });
  auto queued = loop.post(task);
  auto future = loop.async(task);
  EXPECT_TRUE(delayed.cancel());
  EXPECT_TRUE(delayed.cancel());
  EXPECT_TRUE(queued.cancel());
  future.cancel();
  EXPECT_EQ(future.wait(0), FutureState::Canceled);
  EXPECT_EQ(counter.live(), 1) << "only the one here may be left";
  EXPECT_EQ(loop.figures().queued, 0u);
  EXPECT_EQ(loop.figures().delayed, 0u);
  release.setValue();
  blocker.value();
  loop.async([] {}).value();
  EXPECT_EQ(runs, 0);
}

TEST_F(Loop, CancelAsTheTaskFiresHasOneOutcome) {
  EventLoop loop(sized(2, 2));
  constexpr int atOnce = 500;
  int wrong = 0, ran = 0, canceled = 0;
  for (int round = house::rounds(50000); round > 0; round -= atOnce) {
    std::vector<std::atomic<int>> runs(atOnce);
    std::vector<Future<void>> futures;
    for (auto& count : runs) {
      futures.push_back(loop.async([&count] { ++count; }, milliseconds(round % 3)));
    }
    while (runs[0] == 0) std::this_thread::yield();
    for (int i = atOnce; i-- > 0;) futures[static_cast<std::size_t>(i)].cancel();
    for (int i = 0; i < atOnce; ++i) {
      const auto place = static_cast<std::size_t>(i);
      const bool wasCanceled = futures[place].wait() == FutureState::Canceled;
      ++(wasCanceled ? canceled : ran);
      wrong += runs[place] == (wasCanceled ? 0 : 1) ? 0 : 1;
    }
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_GT(ran, 0);
  EXPECT_GT(canceled, 0);
}

TEST_F(Loop, NoTaskIsLostToAThreadThatRetires) {
  auto settings = announcedOnly(1, 8);
  settings.retireAfter = milliseconds(0);
  EventLoop loop(settings);
  for (int round = 0; round < house::rounds(5000); ++round) {
    auto outer = loop.async([&] { return loop.async([] { return 1; }).value() + 1; });
    ASSERT_EQ(outer.value(), 2);
  }
}

TEST_F(Loop, EndDropsWhatHasNotStarted) {
  Future<void> queued, delayed;
  Promise<void> release;
  {
    EventLoop loop(sized(1, 1));
    loop.post([future = release.future()] { future.wait(); });
    waitUntil(loop, [](const auto& figures) { return figures.blocked == 1; });
    queued = loop.async([] {});
    delayed = loop.async([] {}, hours(1));
    queued.connect([&](Future<void>) { release.setValue(); }, gv::FutureCallbackType::Sync);
  }
  EXPECT_EQ(queued.errorState(0), FutureException::State::BrokenPromise);
  EXPECT_EQ(delayed.errorState(0), FutureException::State::BrokenPromise);
}

TEST_F(Loop, RunsNothingElseOnAThreadThatWaits) {
  EventLoop loop(sized(1, 1));
  Promise<void> release;
  bool isWaiting = false;  // all on the one thread
  const auto waiter = loop.async([&, release = release.future()] {
    const auto other = loop.async([&] { return isWaiting; });
    isWaiting = true;
    release.wait();
    isWaiting = false;
    return other;
  });
  waitUntil(loop, [](const auto& figures) { return figures.blocked == 1; });
  release.setValue();
  EXPECT_FALSE(waiter.value().value());
}

/// Uses the loop as it goes: a lock of the loop held there would never come free.
struct Reentrant {
  EventLoop* loop;
  int* gone;
  ~Reentrant() {
    loop->post([] {});
    ++*gone;
  }
};

TEST_F(Loop, DestroysTasksWithNoLockHeld) {
  int gone = 0;
  {
    EventLoop loop({});
    const auto make = [&] {
      return [held = std::shared_ptr<Reentrant>(new Reentrant{&loop, &gone})] {};
    };
    EXPECT_TRUE(loop.post(make(), hours(1)).cancel());
    EXPECT_EQ(gone, 1);
    loop.post(make(), hours(1));
  }
  EXPECT_EQ(gone, 2) << "dropped at the end of the loop";
}

TEST_F(Loop, MayEndOnItsOwnThread) {
  house::LiveCounter counter;
  auto loop = std::make_unique<EventLoop>(sized(2, 2));
  Promise<void> ended;
  EventLoop& used = *loop;
  used.post([&, mark = house::LiveCounter::Mark(counter), done = ended]() {
    loop.reset();
    done.setValue();
  });
  ended.future().value();
  while (counter.live() > 0) std::this_thread::yield();
}

TEST_F(Loop, ManyPostersLoseNothing) {
  EventLoop loop(sized(2, 8));
  const int each = house::rounds(50000);
  std::atomic<int> runs{0};
  Promise<void> all;
  std::vector<std::thread> posters;
  for (int i = 0; i < 4; ++i) {
    posters.emplace_back([&] {
      for (int n = 0; n < each; ++n) {
        loop.post([&] {
          if (++runs == 4 * each) all.setValue();
        });
      }
    });
  }
  for (auto& poster : posters) poster.join();
  all.future().value();
  EXPECT_EQ(runs, 4 * each);
}

}  // namespace
