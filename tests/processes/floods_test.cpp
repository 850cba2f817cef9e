// A robot that is flooded: with connections while it has few descriptors, with bytes that are no
// conversation, with posted calls and stops.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <boost/make_shared.hpp>
#include <future>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gvmessaging/session.h>
#include <jxcommon/jxproxy.h>

#include "robotprocess.h"
#include "steadyclient.h"
#include "support/rawpeer.h"
#include "support/rounds.h"
#include "support/sanitized.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using namespace std::chrono_literals;
using SessionPtr = boost::shared_ptr<gv::Session>;

constexpr int guardMs = 20'000;

/// Threads that each do the same over and over, until they are told to stop.
class Flood {
 public:
  /// What the robot refuses, or cuts off, is no failure of a flood.
  Flood(int threads, const std::function<void()>& round) {
    for (int i = 0; i < threads; ++i)
      threads_.push_back(std::async(std::launch::async, [this, round] {
        for (; !isOver_; ++rounds_) {
          try {
            round();
          } catch (const std::system_error&) {
            std::this_thread::yield();
          }
        }
      }));
  }
  ~Flood() { stop(); }
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;

  int stop() {
    isOver_ = true;
    for (auto& thread : threads_) thread.wait();
    return rounds_;
  }

 private:
  std::atomic<bool> isOver_{false};
  std::atomic<int> rounds_{0};
  std::vector<std::future<void>> threads_;
};

SessionPtr connectTo(const RobotProcess& robot) {
  auto session = boost::make_shared<gv::Session>();
  session->connect(robot.address()).value(guardMs);
  session->services().value(guardMs);
  return session;
}

/// A robot that has as good as no descriptor left for newcomers.
class FloodOfConnections : public testing::Test {
 protected:
  FloodOfConnections() {
    while (robot.figures().descriptors < mostDescriptors - left) old.push_back(connectTo(robot));
  }

  /// While the flood goes on, old connections are served, and it costs little.
  void watch(std::chrono::milliseconds time) {
    const auto object = old.front()->service("Robot").value(guardMs);
    const auto before = robot.processorTime();
    const auto start = Clock::now();
    int slowestMs = 0;
    while (Clock::now() - start < time) {
      const auto asked = Clock::now();
      ASSERT_EQ(object.call<int>("add", 1, 2), 3);
      slowestMs = std::max(slowestMs, millisecondsSince(asked));
      std::this_thread::sleep_for(20ms);
    }
    const double used = static_cast<double>((robot.processorTime() - before).count());
    const double share = used / millisecondsSince(start);
    RecordProperty("slowestCallMs", slowestMs);
    RecordProperty("percentOfACore", static_cast<int>(share * 100));
    EXPECT_LT(slowestMs, 2000);
    if (!house::isSanitized) {
      EXPECT_LT(share, 0.4);
    }
  }

  /// A client that tries again when it is turned away is served soon.
  void expectServiceSoon() const {
    const auto end = Clock::now();
    int refused = 0;
    const auto isServed = [&] {
      const auto session = boost::make_shared<gv::Session>();
      const bool isGood = session->connect(robot.address()).hasValue(guardMs) &&
                          session->services().hasValue(guardMs);
      refused += isGood ? 0 : 1;
      return isGood;
    };
    EXPECT_TRUE(becomesTrue(isServed));
    RecordProperty("backAfterMs", millisecondsSince(end));
    RecordProperty("refusedMeanwhile", refused);
    EXPECT_LT(millisecondsSince(end), 5000);
  }

  void TearDown() override {
    for (const SessionPtr& session : old) EXPECT_TRUE(session->services().hasValue(guardMs));
    EXPECT_TRUE(robot.end());
  }

  static constexpr int mostDescriptors = 64;
#ifdef __SANITIZE_ADDRESS__
  // The sanitizer's look at an object needs a pipe: without one it calls the object invalid.
  static constexpr int left = 24;
#else
  static constexpr int left = 6;
#endif
  house::Watchdog watchdog{"floods of connections", std::chrono::seconds(110)};
  RobotProcess robot{{}, {"TEST_DESCRIPTORS=" + std::to_string(mostDescriptors)}};
  std::vector<SessionPtr> old;
};

TEST_F(FloodOfConnections, ThatCloseAtOnceCostsLittleAndIsOverWhenItEnds) {
  Flood flood(4, [this] { house::RawPeer::connectTo(robot.port()).reset(); });
  watch(1500ms * house::roundsFactor());
  RecordProperty("connections", flood.stop());
  expectServiceSoon();
}

TEST_F(FloodOfConnections, ThatStayOpenInSilenceKeepsNobodyOut) {
  constexpr std::size_t mostHeld = 900;  // less than this process may have
  std::vector<house::RawPeer> held;
  Flood flood(1, [&] {
    if (held.size() < mostHeld)
      held.push_back(house::RawPeer::connectTo(robot.port()));
    else
      std::this_thread::yield();
  });
  watch(1500ms * house::roundsFactor());
  flood.stop();
  RecordProperty("connections", static_cast<int>(held.size()));
  expectServiceSoon();
}

std::string garbage(int number) {
  std::string random(200, '\0');
  for (std::size_t i = 0; i < random.size(); ++i)
    random[i] = static_cast<char>((static_cast<std::size_t>(number) * 7919 + i * i * 31) % 251);
  const std::string all[] = {
      "GET / HTTP/1.1\r\nHost: robot\r\n\r\n",
      std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11) + random, random,
      std::string("GVM\x01\x01\0\0\0\x32", 9), ""};
  return all[number % 5];
}

TEST(HostileConnections, LeaveNothingBehindAndWriteALineASecond) {
  const house::Watchdog watchdog("hostile connections", std::chrono::seconds(115));
  RobotProcess robot;
  SteadyClient steady(robot);
  std::atomic<int> number{0};
  const auto visit = [&] {
    auto peer = house::RawPeer::connectTo(robot.port());
    const int own = ++number;
    peer.send(garbage(own));
    own % 2 == 0 ? peer.reset() : peer.close();
  };
  const auto visitTimes = [&](int times) {
    number = 0;
    Flood flood(4, visit);
    EXPECT_TRUE(becomesTrue([&] { return number >= times; }, 100s));
  };
  const auto start = Clock::now();
  visitTimes(500);  // what the first ones make the robot keep is no leak
  const Figures before = robot.figures();
  visitTimes(house::rounds(10'000));
  const std::string written = robot.errors();
  const auto lines = static_cast<int>(std::count(written.begin(), written.end(), '\n'));
  const int tookMs = millisecondsSince(start);
  RecordProperty("lines", lines);
  RecordProperty("tookMs", tookMs);
  EXPECT_GE(lines, 1);
  EXPECT_LE(lines, 2 + tookMs / 1000);
  Figures after;
  EXPECT_TRUE(becomesTrue([&] {
    after = robot.figures();
    return after.descriptors <= before.descriptors && after.threads <= before.threads + 2;
  })) << after.descriptors
      << " descriptors, before " << before.descriptors << "; " << after.threads
      << " threads, before " << before.threads;
  RecordProperty("residentKiBGrown", std::to_string(after.residentKiB - before.residentKiB));
  if (!house::isSanitized) {
    EXPECT_LT(after.residentKiB - before.residentKiB, 4 * 1024);
  }
  EXPECT_GT(steady.stop(), 0);
  EXPECT_TRUE(robot.end());
}

/// What 99 of 100 calls take at most.
std::chrono::microseconds slowCallOf(const gv::Object<gv::Empty>& object, int calls) {
  std::vector<std::chrono::microseconds> all;
  for (int i = 0; i < calls; ++i) {
    const auto start = Clock::now();
    EXPECT_EQ(object.call<int>("add", i, 1), i + 1);
    all.push_back(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start));
  }
  std::sort(all.begin(), all.end());
  return all[all.size() * 99 / 100];
}

TEST(GreedyConnection, DoesNotStarveAModestOne) {
  const house::Watchdog watchdog("a greedy connection", std::chrono::seconds(110));
  RobotProcess robot;
  const SessionPtr modest = connectTo(robot), greedy = connectTo(robot);
  const auto object = modest->service("Robot").value(guardMs);
  slowCallOf(object, 200);
  const auto idle = slowCallOf(object, house::rounds(1000));
  const auto greedyObject = greedy->service("Robot").value(guardMs);
  Flood flood(1, [&] {
    std::vector<gv::Future<int>> window;
    for (int i = 0; i < 1000; ++i) window.push_back(greedyObject.async<int>("add", i, 1));
    for (const auto& call : window) call.wait(guardMs);
  });
  const auto beside = slowCallOf(object, house::rounds(1000));
  RecordProperty("idleUs", std::to_string(idle.count()));
  RecordProperty("besideUs", std::to_string(beside.count()));
  RecordProperty("greedyWindows", flood.stop());
  // Ten times is what is aimed at; on a busy machine only being starved can be told from chance.
  EXPECT_LT(beside, std::max<std::chrono::microseconds>(10 * idle, 500ms));
}

TEST(FloodOfPostedCalls, IsRefusedAtALimitOfThatPeerWhichStopsMustNotPass) {
  const house::Watchdog watchdog("floods of posted calls", std::chrono::seconds(110));
  RobotProcess robot({}, {"GV_EVENTLOOP_MAX_THREADS=16", "GV_LOG=error"});
  const long before = robot.figures().residentKiB;
  const auto flooder = robot.join("flooder");
  JX::JXProxy proxy(flooder, "Robot");
  int last = 0, taken = 0;
  const std::string refusal = errorOf([&] {
    for (; taken < 20'000; ++taken) {
      last = proxy.pCall("hold", std::string("for ever"));
      if (taken % 10 == 0) proxy.stop(last);  // which it does not heed
    }
  });
  EXPECT_NE(refusal.find("too many posted calls"), std::string::npos) << refusal;
  EXPECT_EQ(taken, 10'000);
  EXPECT_EQ(proxy.call<int>("add", 1, 2), 3);
  EXPECT_TRUE(proxy.isRunning(last));
  const auto other = robot.join("other");
  JX::JXProxy others(other, "Robot");
  EXPECT_GT(others.pCall("hold", std::string("for ever")), last) << "others are not held to it";
  const long grown = robot.figures().residentKiB - before;
  RecordProperty("residentKiBGrown", std::to_string(grown));
  if (!house::isSanitized) {
    EXPECT_LT(grown, 64 * 1024);
  }
  for (const auto& broker : {flooder, other}) broker->shutdown();
  robot.kill();
}

}  // namespace
}  // namespace processes
