#include <gv/log.h>

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/rounds.h"
#include "support/watchdog.h"

namespace {

using gv::log::Level;
using gv::log::Record;

class Log : public ::testing::Test {
 protected:
  Log() { gv::log::removeHandler(gv::log::DefaultHandler); }
  ~Log() override { gv::log::setLevel(Level::Info); }

  static void say(const std::string& text, const std::string& category = "test") {
    gv::log::write(Level::Info, category, "say", "", 0, text);
  }

  house::Watchdog watchdog_{"log"};
};

TEST_F(Log, LevelsApplyToCategoriesThereAndToCome) {
  gv::log::addCategory("level.there");
  EXPECT_FALSE(gv::log::isEnabled("level.there", Level::Verbose));
  gv::log::setLevel(Level::Debug, "level.*");
  EXPECT_TRUE(gv::log::isEnabled("level.there", Level::Debug));
  EXPECT_TRUE(gv::log::category("level.tocome").isEnabled(Level::Debug));
  EXPECT_TRUE(gv::log::isEnabled("level.unregistered", Level::Debug));
  gv::log::setLevel(Level::Silent);
  house::LogCapture capture;
  gv::log::write(Level::Fatal, "level.there", "", "", 0, "silenced");
  EXPECT_EQ(capture.count("silenced"), 0);
}

TEST_F(Log, DisabledLineEvaluatesNothing) {
  int evaluated = 0;
  auto line = [&] { GV_LOG(Level::Verbose, "lazy", "line", std::to_string(++evaluated)); };
  line();
  EXPECT_EQ(evaluated, 0);
  gv::log::setLevel(Level::Verbose, "lazy");
  line();
  EXPECT_EQ(evaluated, 1);
}

TEST_F(Log, TwoHandlersThatLogDoNotPlayPingPong) {
  int calls = 0;
  auto talk = [&](const Record&) {
    ++calls;
    say("again");
  };
  const auto first = gv::log::addHandler("first", talk);
  const auto second = gv::log::addHandler("second", talk);
  say("start");
  gv::log::removeHandler(first);
  gv::log::removeHandler(second);
  EXPECT_EQ(calls, 4);
}

TEST_F(Log, HandlerThatThrowsHarmsNobodyAndIsReportedOnce) {
  const auto id = gv::log::addHandler(
      "thrower", [](const Record&) { throw std::runtime_error("handler trouble"); });
  house::LogCapture capture;
  EXPECT_NO_THROW(say("one"));
  EXPECT_NO_THROW(say("two"));
  gv::log::removeHandler(id);
  EXPECT_EQ(capture.count("one"), 1);
  EXPECT_EQ(capture.count("two"), 1);
  EXPECT_EQ(capture.count("handler \"thrower\" threw: handler trouble"), 1);
}

TEST_F(Log, RemovalWaitsForTheHandlerInOtherThreads) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int i = 0; i < 3; ++i) {
    writers.emplace_back([&] {
      while (!stop) say("noise");
    });
  }
  std::atomic<int> late{0};
  for (int round = 0; round < house::rounds(5000); ++round) {
    auto isAlive = std::make_unique<std::atomic<bool>>(true);
    const auto id = gv::log::addHandler("short", [&late, alive = isAlive.get()](const Record&) {
      std::this_thread::yield();
      if (!*alive) ++late;
    });
    std::this_thread::yield();
    gv::log::removeHandler(id);
    *isAlive = false;
  }
  stop = true;
  for (auto& writer : writers) writer.join();
  EXPECT_EQ(late, 0);
}

TEST_F(Log, HandlerThatBlocksStopsOnlyTheThreadInIt) {
  std::latch inside(1), release(1);
  std::atomic<int> calls{0};
  const auto slow = gv::log::addHandler("slow", [&](const Record& record) {
    ++calls;
    if (record.text != "block") return;
    inside.count_down();
    release.wait();
  });
  std::thread blocked([] { say("block"); });
  inside.wait();
  {
    house::LogCapture added;
    say("passes");
    EXPECT_EQ(added.count("passes"), 1);
  }  // removed
  gv::log::setLevel(Level::Info, "test");
  EXPECT_EQ(calls, 2);
  release.count_down();
  blocked.join();
  gv::log::removeHandler(slow);
}

TEST_F(Log, HandlerMayRemoveItself) {
  int calls = 0;
  gv::log::HandlerId id = 0;
  id = gv::log::addHandler("once", [&](const Record&) {
    ++calls;
    gv::log::removeHandler(id);
  });
  say("one");
  say("two");
  EXPECT_EQ(calls, 1);
}

TEST_F(Log, HandlersMayRemoveEachOtherAtOnce) {
  for (int round = 0; round < house::rounds(1000); ++round) {
    std::latch inside(2);
    gv::log::HandlerId first = 0, second = 0;
    first = gv::log::addHandler("first", [&](const Record& record) {
      if (record.text != "to first") return;
      inside.arrive_and_wait();
      gv::log::removeHandler(second);
    });
    second = gv::log::addHandler("second", [&](const Record& record) {
      if (record.text != "to second") return;
      inside.arrive_and_wait();
      gv::log::removeHandler(first);
    });
    std::thread other([] { say("to first"); });
    say("to second");
    other.join();
  }
}

TEST_F(Log, RemovalWaitsForAThreadThatWaitsInAnotherOne) {
  std::latch insideX(1), insideY(1), gate(1);
  std::atomic<bool> hasLeftX{false};
  bool sawXLeft = false;
  gv::log::HandlerId x = 0;
  const auto y = gv::log::addHandler("y", [&](const Record& record) {
    if (record.text != "to y") return;
    insideY.count_down();
    gate.wait();
  });
  x = gv::log::addHandler("x", [&](const Record& record) {
    if (record.text != "to x") return;
    insideX.count_down();
    gv::log::removeHandler(y);
    hasLeftX = true;
  });
  const auto z = gv::log::addHandler("z", [&](const Record& record) {
    if (record.text != "to z") return;
    gv::log::removeHandler(x);
    sawXLeft = hasLeftX;
  });
  std::thread inY([] { say("to y"); });
  insideY.wait();
  std::thread inX([] { say("to x"); });
  insideX.wait();
  std::thread inZ([] { say("to z"); });
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  gate.count_down();
  for (auto* thread : {&inX, &inY, &inZ}) thread->join();
  gv::log::removeHandler(z);
  EXPECT_TRUE(sawXLeft);
}

}  // namespace
