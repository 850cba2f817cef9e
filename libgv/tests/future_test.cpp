#include <gv/future.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gv/eventloop.h>
#include <gv/log.h>
#include <gv/when.h>

#include "support/live_counter.h"
#include "support/log_capture.h"
#include "support/rounds.h"
#include "support/smallstack.h"
#include "support/watchdog.h"

namespace {

using gv::Future;
using gv::FutureCallbackType;
using gv::FutureException;
using gv::FutureState;
using gv::Promise;

/// The state under which the action throws FutureException; fails the test when it does not.
FutureException::State thrownBy(const std::function<void()>& action) {
  try {
    action();
  } catch (const FutureException& error) {
    return error.state();
  }
  ADD_FAILURE() << "nothing was thrown";
  return FutureException::State::Invalid;
}

/// One promise on which four threads set a value, set an error, cancel and drop at once; on every
/// fourth they only drop, so that it breaks.
struct Raced {
  std::unique_ptr<Promise<int>> promise[4];
  Future<int> future;
  std::atomic<int> wins[3] = {};
  std::atomic<int> callbacks{0};

  Raced() {
    Promise<int> first(FutureCallbackType::Sync, [this] { attempt(2); });
    for (auto& copy : promise) copy = std::make_unique<Promise<int>>(first);
    future = first.future();
    future.connect([this](Future<int>) { ++callbacks; });
  }
  void attempt(int way) {
    try {
      if (way == 0) promise[0]->setValue(7);
      if (way == 1) promise[1]->setError("bad");
      if (way == 2) promise[2]->setCanceled();
      ++wins[way];
    } catch (const std::logic_error&) {
    }
  }
  void race(int way, bool drops) {
    if (!drops && way < 2) attempt(way);
    if (!drops && way == 2) future.cancel();
    promise[way].reset();
  }
  bool isRight(bool wasDropped) const {
    if (callbacks != 1 || wins[0] + wins[1] + wins[2] != (wasDropped ? 0 : 1)) return false;
    if (wasDropped) return future.errorState(0) == FutureException::State::BrokenPromise;
    const FutureState end = future.wait(0);
    return end == (wins[0]   ? FutureState::FinishedWithValue
                   : wins[1] ? FutureState::FinishedWithError
                             : FutureState::Canceled);
  }
};

TEST(Future, OneOfManySettlersWinsAndIsSeenByAll) {
  house::Watchdog watchdog("settlers");
  constexpr int atOnce = 500;
  int failures = 0;
  for (int round = house::rounds(100000); round > 0; round -= atOnce) {
    std::vector<Raced> raced(atOnce);
    std::barrier start(4);
    const auto race = [&](int way) {
      std::minstd_rand random(static_cast<unsigned>(4 * round + way));
      start.arrive_and_wait();
      for (int i = 0; i < atOnce; ++i) {
        if (random() % 64 == 0) std::this_thread::yield();
        raced[static_cast<std::size_t>(i)].race(way, i % 4 == 3);
      }
    };
    std::thread value(race, 0), error(race, 1), cancel(race, 2);
    race(3);
    value.join();
    error.join();
    cancel.join();
    for (int i = 0; i < atOnce; ++i) {
      failures += raced[static_cast<std::size_t>(i)].isRight(i % 4 == 3) ? 0 : 1;
    }
  }
  EXPECT_EQ(failures, 0);
}

TEST(Future, CallbackConnectedDuringTheEndRunsOnce) {
  house::Watchdog watchdog("late callbacks");
  constexpr int atOnce = 500;
  std::atomic<int> calls{0};
  int expected = 0;
  for (int round = house::rounds(100000); round > 0; round -= atOnce) {
    std::vector<Promise<int>> promises;
    for (int i = 0; i < atOnce; ++i) promises.emplace_back(FutureCallbackType::Sync);
    std::barrier start(2);
    std::thread settler([&] {
      start.arrive_and_wait();
      for (const auto& promise : promises) promise.setValue(round);
    });
    start.arrive_and_wait();
    for (const auto& promise : promises) {
      promise.future().connect(
          [&](Future<int> ended) { calls += ended.value(0) == round ? 1 : 0; });
    }
    settler.join();
    expected += atOnce;
  }
  EXPECT_EQ(calls, expected);
}

TEST(Future, CallbacksRunElsewhereWhereTheSettlingThreadSaysSo) {
  static std::vector<std::function<void()>> given;
  Promise<int> promise;
  int seen = 0;
  promise.future().connect([&seen](const Future<int>& settled) { seen = settled.value(); },
                           FutureCallbackType::Sync);
  {
    const gv::detail::CallbacksElsewhere scope(
        [](std::function<void()> callback) { given.push_back(std::move(callback)); });
    promise.setValue(5);
  }
  EXPECT_EQ(seen, 0);
  ASSERT_EQ(given.size(), 1u);
  given.front()();
  given.clear();
  EXPECT_EQ(seen, 5);
}

TEST(Future, IsBrokenWhenTheLastPromiseHasGoneTheMovedOnesIncluded) {
  auto first = std::make_unique<Promise<int>>(FutureCallbackType::Sync);
  Promise<int> copy(*first);
  const auto future = first->future();
  Promise<int> moved(std::move(copy));
  first.reset();
  EXPECT_TRUE(future.isRunning());
  moved = Promise<int>();
  EXPECT_EQ(thrownBy([&] { future.value(0); }), FutureException::State::BrokenPromise);
}

TEST(Future, TellsItsEndsApart) {
  auto failed = gv::makeFailedFuture<int>("no route", FutureException::State::NotSent);
  EXPECT_EQ(failed.error(), "no route");
  EXPECT_EQ(thrownBy([&] { failed.value(); }), FutureException::State::NotSent);

  Promise<int> canceled;
  canceled.setCanceled();
  EXPECT_FALSE(canceled.future().hasError());
  EXPECT_FALSE(canceled.future().hasValue());
  EXPECT_EQ(thrownBy([&] { canceled.future().value(); }), FutureException::State::Canceled);
  EXPECT_EQ(thrownBy([&] { canceled.future().error(); }), FutureException::State::Canceled);

  Future<int> empty;
  EXPECT_EQ(empty.wait(), FutureState::None);
  empty.cancel();
  EXPECT_EQ(thrownBy([&] { empty.value(); }), FutureException::State::Invalid);
  EXPECT_EQ(thrownBy([&] { empty.connect([](Future<int>) {}); }), FutureException::State::Invalid);
}

TEST(Future, UnsettledOneTimesOut) {
  Promise<void> promise;
  auto future = promise.future();
  EXPECT_EQ(future.wait(20), FutureState::Running);
  for (int timeoutMs : {20, 0, -1})
    EXPECT_EQ(thrownBy([&] { future.value(timeoutMs); }), FutureException::State::Timeout);
  EXPECT_EQ(thrownBy([&] { future.hasError(0); }), FutureException::State::Timeout);
  promise.setValue();
  EXPECT_NO_THROW(future.value(0));
}

TEST(Future, CallbacksRunWhereTheirTypeSays) {
  Promise<int> promise;  // asynchronous by default
  auto future = promise.future();
  auto onLoop = [] { return gv::getEventLoop()->isInThisContext(); };
  Promise<bool> early, late;
  std::thread::id syncThread;
  future.connect([&](Future<int>) { early.setValue(onLoop()); });
  future.connect([&](Future<int>) { syncThread = std::this_thread::get_id(); },
                 FutureCallbackType::Sync);
  promise.setValue(1);
  future.connect([&](Future<int>) { late.setValue(onLoop()); });
  EXPECT_EQ(syncThread, std::this_thread::get_id());
  EXPECT_TRUE(early.future().value());
  EXPECT_TRUE(late.future().value());
}

TEST(Future, CallbackMayReenterItsFutureAndDropItsPromise) {
  house::Watchdog watchdog("re-entry");
  auto promise = std::make_unique<Promise<int>>(FutureCallbackType::Sync);
  auto future = promise->future();
  std::vector<int> seen;
  future.connect([&](Future<int> ended) {
    promise.reset();
    ended.cancel();
    seen.push_back(ended.value());
    ended.connect([&](Future<int> again) { seen.push_back(again.value() + 1); });
  });
  future.connect([&](Future<int>) { throw std::runtime_error("from a callback"); });
  future.connect([&](Future<int>) { seen.push_back(3); });
  house::LogCapture capture;
  promise->setValue(1);
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(capture.count("from a callback"), 1);
}

/// Calls back from its copy constructor and destructor: a lock held there would never come free.
struct Reentrant {
  std::shared_ptr<std::function<void()>> action = std::make_shared<std::function<void()>>([] {});
  Reentrant() = default;
  Reentrant(const Reentrant& other) : action(other.action) { (*action)(); }
  ~Reentrant() { (*action)(); }
};

TEST(Future, CopiesAndDestroysValuesUnlocked) {
  house::Watchdog watchdog("unlocked copies");
  Reentrant value;
  int calls = 0;
  {
    Promise<Reentrant> promise(FutureCallbackType::Sync);
    *value.action = [&calls, weak = promise.future()] {
      weak.connect([&](Future<Reentrant>) { ++calls; });
      weak.cancel();
    };
    promise.setValue(value);
    promise.future().value();
    *value.action = [] {};
  }
  EXPECT_GT(calls, 3);
}

TEST(Future, LeavesNoValueBehind) {
  house::LiveCounter counter;
  {
    Promise<house::LiveCounter::Mark> promise(FutureCallbackType::Sync);
    auto next = promise.future().then(
        [kept = house::LiveCounter::Mark(counter)](auto ended) { return ended.value(); });
    auto flat = next.then([](auto ended) { return gv::makeReadyFuture(ended.value()); });
    promise.setValue(house::LiveCounter::Mark(counter));
    EXPECT_TRUE(flat.hasValue(0));
    EXPECT_GT(counter.live(), 0);
  }
  EXPECT_EQ(counter.live(), 0);
}

TEST(FutureThen, PassesResultsAndErrorsOn) {
  Promise<int> promise(FutureCallbackType::Sync);
  auto text = promise.future().then([](Future<int> f) { return std::to_string(f.value()); });
  auto nothing = text.then([](Future<std::string> f) { EXPECT_EQ(f.value(), "12"); });
  auto thrown = nothing.then([](Future<void>) -> int { throw std::runtime_error("broke"); });
  promise.setValue(12);
  EXPECT_TRUE(nothing.hasValue(0));
  EXPECT_EQ(thrown.error(0), "broke");

  auto lost = gv::makeFailedFuture<int>("gone", FutureException::State::ConnectionLost);
  auto after = lost.then([](Future<int> f) { return f.value(); }, FutureCallbackType::Sync);
  EXPECT_EQ(after.errorState(0), FutureException::State::ConnectionLost);
}

TEST(FutureThen, FlattensAReturnedFuture) {
  Promise<int> outer(FutureCallbackType::Sync);
  Promise<std::string> inner;
  auto flat = outer.future().then([&](Future<int>) { return inner.future(); });
  outer.setValue(1);
  EXPECT_TRUE(flat.isRunning());
  inner.setError("inner", FutureException::State::ConnectionLost);
  EXPECT_EQ(flat.error(0), "inner");
  EXPECT_EQ(flat.errorState(0), FutureException::State::ConnectionLost);
}

TEST(FutureThen, ChainOfAMillionTakesNoStack) {
  house::Watchdog watchdog("chain");
  const int length = std::min(house::rounds(1'000'000), 1'000'000);
  int results[2] = {0, 0};
  house::runOnSmallStack([&] {
    for (const bool isBroken : {false, true}) {
      int requests = 0;
      auto promise = std::make_unique<Promise<int>>(FutureCallbackType::Sync, [&] { ++requests; });
      const int links = isBroken ? length / 20 : length;  // each throws then
      auto end = promise->future();
      for (int i = 0; i < links; ++i) {
        if (i % 2 == 0) {
          end = end.then([](Future<int> f) { return f.value() + 1; });
        } else {
          end = end.then([](Future<int> f) { return gv::makeReadyFuture(f.value() + 1); });
        }
      }
      end.cancel();
      if (!isBroken) promise->setValue(0);
      promise.reset();
      results[isBroken] = requests != 1 ? -1 : isBroken ? end.hasError(0) : end.value(0);
    }
  });
  EXPECT_EQ(results[0], length);
  EXPECT_EQ(results[1], 1);
}

TEST(FutureThen, MayBeWaitedForInACallbackThatEndsWhatItContinues) {
  house::Watchdog watchdog("ends inside a callback");
  gv::EventLoop::Settings settings;
  settings.maxThreads = 1;
  gv::EventLoop loop(settings);
  Promise<void> release;
  loop.post([held = release.future()] { held.wait(); });
  const auto isSeenIn = [](const Future<int>& ended) {
    return ended.then([](Future<int> f) { return f.isFinished(); }, FutureCallbackType::Sync)
        .value();
  };
  bool isSeen = false;
  gv::makeReadyFuture().connect(
      [&](Future<void>) {
        const auto canceled = loop.async([] { return 1; });
        canceled.cancel();
        auto dropped = std::make_unique<Promise<int>>();
        const auto broken = dropped->future();
        dropped.reset();
        isSeen = isSeenIn(canceled) && isSeenIn(broken);
      },
      FutureCallbackType::Sync);
  EXPECT_TRUE(isSeen);
  release.setValue();

  Promise<int> canceled(FutureCallbackType::Sync);
  auto next = canceled.future().then([](Future<int> f) { return f.value(); });
  canceled.setCanceled();
  EXPECT_TRUE(next.isCanceled()) << "what throws a cancellation is cancelled";
}

TEST(FutureWhen, AllAndAnyEndWithTheLastAndTheFirst) {
  Promise<int> a(FutureCallbackType::Sync), b(FutureCallbackType::Sync);
  const std::vector<Future<int>> both = {a.future(), b.future()};
  auto all = gv::whenAll(both);
  auto any = gv::whenAny(both);
  b.setError("b failed");
  EXPECT_EQ(any.value(0), 1u);
  EXPECT_TRUE(all.isRunning());
  a.setValue(1);
  EXPECT_EQ(all.value(0)[0].value(0), 1);
  EXPECT_EQ(all.value(0)[1].error(0), "b failed");
  EXPECT_TRUE(gv::whenAll(std::vector<Future<int>>()).hasValue(0));
  EXPECT_THROW(gv::whenAny(std::vector<Future<int>>()), std::invalid_argument);

  int requests = 0;
  Promise<void> slow(FutureCallbackType::Sync, [&] { ++requests; });
  gv::whenAll(std::vector{slow.future()}).cancel();
  gv::whenAny(std::vector{slow.future()}).cancel();
  EXPECT_EQ(requests, 1) << "a future is asked once";
}

TEST(FutureCancel, IsARequestToThePromise) {
  int requests = 0;
  Promise<int> promise(FutureCallbackType::Sync, [&] { ++requests; });
  promise.future().cancel();
  promise.future().cancel();
  EXPECT_EQ(requests, 1);
  EXPECT_TRUE(promise.isCancelRequested());
  EXPECT_TRUE(promise.future().isRunning());
  promise.setValue(3);
  EXPECT_EQ(promise.future().value(), 3);
}

TEST(FutureCancel, GoesBackThroughThen) {
  int outerRequests = 0;
  int innerRequests = 0;
  Promise<void> outer(FutureCallbackType::Sync, [&] { ++outerRequests; });
  Promise<void> inner(FutureCallbackType::Sync, [&] { ++innerRequests; });
  auto flat = outer.future().then([&](Future<void>) { return inner.future(); });
  flat.cancel();
  EXPECT_EQ(outerRequests, 1);
  EXPECT_EQ(innerRequests, 0);
  outer.setValue();
  EXPECT_EQ(innerRequests, 1);
  inner.setCanceled();
  EXPECT_EQ(flat.wait(0), FutureState::Canceled);
}

}  // namespace
