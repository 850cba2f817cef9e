// Signals and properties: where handlers run, what they may do, when they are gone.

#include <gvtype/dynamicobjectbuilder.h>

#include <gmock/gmock.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/live_counter.h"
#include "support/log_capture.h"
#include "support/thrown.h"

namespace gv {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr int guardMs = 20'000;

class SignalTest : public testing::Test {
 protected:
  template <class F>
  SignalLink connect(F handler, MetaCallType callType = MetaCallType::Auto) {
    return object.connect("fired", std::move(handler), callType).value(guardMs);
  }

  Object<Empty> object = [] {
    DynamicObjectBuilder builder;
    builder.advertiseSignal<int>("fired");
    builder.advertiseSignal<>("idle");
    builder.advertiseProperty<std::int8_t>("volume", 5);
    builder.advertiseProperty("any", AnyValue());
    return builder.object();
  }();
};

TEST_F(SignalTest, DirectHandlersRunInOrderInTheEmittingThread) {
  std::vector<std::string> seen;
  const auto here = std::this_thread::get_id();
  connect([&](int n) { seen.push_back("a" + std::to_string(n)); });
  connect([&](const AnyArguments& all) {
    seen.push_back("b" + all.args[0].to<std::string>());  // throws: a number is no text
  });
  connect([&](long n) { seen.push_back("c" + std::to_string(n)); });
  const SignalLink last =
      connect([&](int) { seen.push_back(std::this_thread::get_id() == here ? "here" : "away"); });
  const house::LogCapture log;
  object.emit("fired", std::int8_t{7});
  EXPECT_THAT(seen, ElementsAre("a7", "c7", "here"));
  EXPECT_EQ(log.count("'fired' failed: cannot convert int32 to string"), 1);
  object.disconnect(last).value(guardMs);
  object.emit("fired", 8);
  EXPECT_THAT(seen, ElementsAre("a7", "c7", "here", "a8", "c8"));
  EXPECT_THAT(object.disconnect(last).error(guardMs), HasSubstr(std::to_string(last)));
}

TEST_F(SignalTest, QueuedHandlersSeeEveryEmissionInOrderOnTheEventLoop) {
  constexpr int count = 500;
  std::vector<int> seen;
  std::atomic<bool> isAway{true};
  Promise<void> done;
  const auto here = std::this_thread::get_id();
  connect(
      [&](int n) {
        if (std::this_thread::get_id() == here) isAway = false;
        seen.push_back(n);
        if (n == count - 1) done.setValue();
      },
      MetaCallType::Queued);
  const auto id = object.metaObject().signalNamed("fired").uid();
  for (int i = 0; i < count - 1; ++i) object.emit("fired", i);
  object.metaPost(id, makeParameters(count - 1));
  ASSERT_EQ(done.future().wait(guardMs), FutureState::FinishedWithValue);
  EXPECT_TRUE(isAway);
  for (int i = 0; i < count; ++i) EXPECT_EQ(seen[static_cast<std::size_t>(i)], i);
}

TEST_F(SignalTest, RefusesWhatIsNotItsOwn) {
  connect([](int) { FAIL() << "nothing was emitted"; });
  EXPECT_THAT(house::errorOf([&] { object.emit("Fire", 1); }),
              HasSubstr("did you mean: fired(i)?"));
  EXPECT_THAT(house::errorOf([&] { object.emit("fired", std::string("x")); }),
              HasSubstr("'fired': cannot convert string to int32 (argument 1)"));
  EXPECT_THAT(house::errorOf([&] { object.emit("fired"); }),
              HasSubstr("expected 1 argument, got 0"));
  EXPECT_THAT(object.connect("fire", [] {}).error(guardMs), HasSubstr("fired(i)"));
  EXPECT_THAT(object.connect("fired", [](int, int) {}).error(guardMs),
              HasSubstr("the handler (ii) does not take"));
  EXPECT_THAT(object.connect("fired", [](const std::string&) {}).error(guardMs),
              HasSubstr("'fired': cannot convert int32 to string (argument 1)"));
}

/// Throws, as it is copied, what is no std::exception.
struct Bomb {
  Bomb() = default;
  Bomb(const Bomb&) {
    if (copiesLeft-- == 0) throw 5;
  }
  Bomb& operator=(const Bomb&) = default;
  static inline std::atomic<int> copiesLeft{0};
};

TEST_F(SignalTest, ArgumentsThatCannotBeCopiedLeaveTheOthersAlone) {
  DynamicObjectBuilder builder;
  builder.setThreadingModel(ObjectThreadingModel::SingleThread);
  builder.advertiseSignal<Bomb>("lit");
  const unsigned boxed = builder.advertiseSignal<AnyValue>("boxed");
  builder.advertiseMethod("one", [] { return 1; });
  object = builder.object();
  int direct = 0;
  Promise<void> queued[2];
  for (const Promise<void>& done : queued)
    object.connect(
        "lit", [done](const Bomb&) { done.setValue(); }, MetaCallType::Queued);
  object.connect("lit", [&](const Bomb&) { ++direct; }).value(guardMs);
  const house::LogCapture log;
  const Bomb bomb;
  object.emit("lit", bomb);
  EXPECT_EQ(log.count("could not be queued: unknown exception"), 1);
  Bomb::copiesLeft = 1;
  object.emit("lit", bomb);
  for (const Promise<void>& done : queued) EXPECT_TRUE(done.future().hasValue(guardMs));
  EXPECT_EQ(direct, 2);
  Bomb::copiesLeft = 1;
  object.metaPost(boxed, makeParameters(bomb));
  EXPECT_EQ(object.async<int>("one").value(guardMs), 1) << "the object lives on";
  EXPECT_EQ(log.count("signal 'boxed': unknown exception"), 1);
  EXPECT_EQ(log.count("a handler"), 0);
}

TEST_F(SignalTest, PropertiesBoundToEachOtherEndAtTheLimit) {
  std::string error;
  const auto bind = [&](int n) {
    const Future<void> set = object.setProperty("volume", n + 1);
    if (set.hasError(guardMs)) error = set.error();
  };
  object.connect("volume", bind).value(guardMs);
  object.setProperty("volume", 6).value(guardMs);
  EXPECT_THAT(error, HasSubstr("'volume': more than 64 emissions"));
}

TEST_F(SignalTest, HandlersMayConnectDisconnectEmitAndDropTheObject) {
  house::LiveCounter counter;
  std::vector<std::string> seen;
  SignalLink self = 0;
  SignalLink next = 0;
  self = connect([&, mark = house::LiveCounter::Mark(counter)](int n) {
    seen.push_back("self" + std::to_string(n));
    EXPECT_TRUE(object.disconnect(self).hasValue(0)) << "its own stack does not count";
    EXPECT_TRUE(object.disconnect(next).hasValue(0));
    connect([&](int m) {
      seen.push_back("late" + std::to_string(m));
      object = {};
    });
    object.emit("fired", n + 1);
  });
  next = connect([&](int) { seen.push_back("next"); });
  object.emit("fired", 1);
  EXPECT_THAT(seen, ElementsAre("self1", "late2"));
  EXPECT_FALSE(object);
  EXPECT_EQ(counter.live(), 0);
}

TEST_F(SignalTest, ADisconnectedHandlerIsWaitedForByItsFutureAlone) {
  Promise<void> entered;
  Promise<void> release;
  const SignalLink link = connect([&](int) {
    entered.setValue();
    release.future().wait(guardMs);
  });
  std::thread emitter([&] { object.emit("fired", 1); });
  entered.future().wait(guardMs);
  const Future<void> gone = object.disconnect(link);
  EXPECT_TRUE(gone.isRunning());
  release.setValue();
  EXPECT_TRUE(gone.hasValue(guardMs));
  emitter.join();
}

TEST_F(SignalTest, NoHandlerRunsAfterItsDisconnectionHasSettled) {
  constexpr int rounds = 300;
  std::atomic<bool> isOver{false};
  std::atomic<int> calls{0};
  std::vector<std::thread> emitters;
  for (int i = 0; i < 2; ++i)
    emitters.emplace_back([&] {
      while (!isOver) object.emit("fired", 1);
    });
  for (int i = 0; i < rounds; ++i) {
    auto isAllowed = std::make_shared<std::atomic<bool>>(true);
    const SignalLink link = connect(
        [isAllowed, &calls](int) {
          EXPECT_TRUE(*isAllowed);
          ++calls;
        },
        i % 4 == 0 ? MetaCallType::Queued : MetaCallType::Direct);
    const int before = calls;
    while (i % 8 == 1 && calls == before) std::this_thread::yield();
    object.disconnect(link).value(guardMs);
    *isAllowed = false;
  }
  isOver = true;
  for (std::thread& emitter : emitters) emitter.join();
}

TEST_F(SignalTest, PropertiesConvertAndTellTheirNewValue) {
  std::vector<int> seen;
  object.connect("volume", [&](int n) { seen.push_back(n); }).value(guardMs);
  EXPECT_EQ(object.property<int>("volume").value(guardMs), 5);
  object.setProperty("volume", 7.0).value(guardMs);
  EXPECT_EQ(object.property<long>("volume").value(guardMs), 7);
  EXPECT_THAT(object.setProperty("volume", 300).error(guardMs),
              HasSubstr("property 'volume': cannot convert int32 300 to int8"));
  EXPECT_THAT(object.setProperty("value", 1).error(guardMs), HasSubstr("volume(c)"));
  EXPECT_THAT(object.property<int>("colour").error(guardMs), HasSubstr("colour"));

  EXPECT_THAT(object.call<std::vector<std::string>>("properties"), ElementsAre("volume", "any"));
  object.call<void>("setProperty", std::string("volume"), AnyValue::from(9));
  EXPECT_EQ(object.call<int>("property", std::string("volume")), 9);
  EXPECT_THAT(seen, ElementsAre(7, 9));
}

TEST_F(SignalTest, ADynamicPropertyHoldsValuesOfAnyTypeOrNone) {
  EXPECT_EQ(object.metaObject().propertyNamed("any").signature().toString(), "v");
  std::vector<std::string> seen;
  object.connect("any", [&](const AnyValue& value) { seen.push_back(value.signature()); }).wait();
  EXPECT_FALSE(object.property<AnyValue>("any").value(guardMs).isValid());
  object.setProperty("any", 3).value(guardMs);
  EXPECT_EQ(object.property<int>("any").value(guardMs), 3);
  object.setProperty("any", AnyValue::from("text")).value(guardMs);
  EXPECT_EQ(object.call<AnyValue>("property", std::string("any")), AnyValue::from("text"));
  EXPECT_THAT(seen, ElementsAre("i", "s"));
}

}  // namespace
}  // namespace gv
