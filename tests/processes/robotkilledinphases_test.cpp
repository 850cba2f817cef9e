// A robot dies in each phase of each kind of call, over and over, beside one that must not notice.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>

#include "footprint.h"
#include "robotprocess.h"
#include "steadyclient.h"
#include "support/rounds.h"
#include "support/sanitized.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using JX::JXValue;

/// BeforeACall: at once after the robot is killed, when its loss may not be known.
/// BetweenCalls: each kind has come back, over and over.
enum Phase { BeforeACall, RequestOnItsWay, MethodRuns, ReplyOnItsWay, BetweenCalls, phases };

constexpr int largeSize = 6 << 20;  // more than the system takes for a peer that reads nothing
// A sanitizer takes seconds for the copies of large requests alone; it is there for races.
constexpr int endWithinMs = house::isSanitized ? 20'000 : 1000;

/// How many connections at a port have bytes that the process there has not read.
int unreadAt(int port) {
  std::ostringstream wanted;
  wanted << std::uppercase << std::hex << ':' << port;
  std::ifstream sockets("/proc/net/tcp");
  int unread = 0;
  for (std::string line; std::getline(sockets, line);) {
    std::istringstream fields(line);
    std::string number, local, remote, state, queues;
    fields >> number >> local >> remote >> state >> queues;
    const std::string established = "01";
    if (local.ends_with(wanted.str()) && state == established)
      unread += std::stol(queues.substr(queues.find(':') + 1), nullptr, 16) > 0 ? 1 : 0;
  }
  return unread;
}

/// A robot about to be killed, and what is done with it until that fails.
class Victim {
 public:
  /// What became of one kind of call.
  struct Ending {
    std::string error;
    Clock::time_point at;
  };

  Victim(const RobotProcess& survivor, const boost::shared_ptr<JX::JXBroker>& client,
         const std::string& name)
      : robot({name, std::to_string(survivor.port())}),
        proxy_(client, name),
        throughSurvivor_(client, "Robot"),
        task_(proxy_.pCall("hold", "the task")) {
    robot.waitUntilHolding("the task");
    throughSurvivor_.call<int>("forward", name, "echo", 1);  // the survivor knows it, too
    kinds_ = {
        {"typed", [this] { check(proxy_.call<JXValue>(method_, argument_)); }},
        {"untyped", [this] { check(proxy_.genericCall(method_, arguments_)); }},
        {"nested",
         [this, name] {
           check(throughSurvivor_.call<JXValue>("forward", name, method_, argument_));
         }},
        {"posted", [this] { proxy_.pCall(postedMethod(), argument_); }},
        {"posted untyped", [this] { proxy_.genericPCall(postedMethod(), arguments_); }},
        {"notification",
         [this] { proxy_.pCallNotify("echo", "text", argument_, argument_, &cache_); }},
        {"promise", [this] { mustFail(proxy_.call<int>("promise")); }},
        {"wait", [this] { mustFail(proxy_.wait(task_, 0)); }},
        {"isRunning", [this] { expect(proxy_.isRunning(task_), "the task ended"); }},
        {"stop", [this] { proxy_.stop(task_); }},
        {"look-up", [client, name] { client->getProxy(name, 0); }},
    };
  }

  ~Victim() { robot.kill(); }  // which also ends what was begun

  /// Begins each kind in a thread of its own, to go on until it fails.
  void begin(Phase phase) {
    method_ = phase == MethodRuns ? "hold" : phase == ReplyOnItsWay ? "make" : "echo";
    if (phase == MethodRuns)
      argument_ = "the call";
    else if (phase == ReplyOnItsWay)
      argument_ = largeSize;
    else if (phase == RequestOnItsWay)
      argument_ = JXValue::binary(std::string(largeSize, '+').data(), largeSize);
    arguments_ = std::vector<JXValue>{argument_};
    for (const auto& [name, call] : kinds_)
      endings_[name] = std::async(std::launch::async, [this, call = call] {
        ++begun_;
        try {
          for (;; ++completed_) call();
        } catch (const JX::JXError& error) {
          return Ending{error.description(), Clock::now()};
        }
      });
  }

  /// Waits until it is as far as the phase says, and kills it.
  void killIn(Phase phase, int spinUs) {
    const auto allHaveBegun = [this] { return begun_ == static_cast<int>(kinds_.size()); };
    if (phase != BeforeACall) expect(becomesTrue(allHaveBegun), "they do not begin");
    switch (phase) {
      case RequestOnItsWay:
        // From here, and from the survivor.
        expect(becomesTrue([this] { return unreadAt(robot.port()) == 2; }), "nothing is sent");
        robot.kill(SIGCONT);
        break;
      case MethodRuns:
        expect(becomesTrue([this] { return linesOf("holding the call") == 3; }), "none is held");
        robot.waitForLine("promised");
        break;
      case ReplyOnItsWay:
        robot.waitForLine("made");
        break;
      case BetweenCalls:
        expect(becomesTrue([this] { return completed_ > 1000; }), "nothing comes back");
        break;
      default:
        break;
    }
    const auto end = Clock::now() + std::chrono::microseconds(spinUs);
    while (Clock::now() < end) std::this_thread::yield();
    robot.kill();
  }

  std::map<std::string, std::future<Ending>>& endings() { return endings_; }

  RobotProcess robot;

 private:
  int linesOf(const std::string& wanted) {
    std::istringstream lines(robot.output());
    int count = 0;
    for (std::string line; std::getline(lines, line);) count += line == wanted ? 1 : 0;
    return count;
  }

  static void expect(bool condition, const char* otherwise) {
    if (!condition) throw std::logic_error(otherwise);
  }
  template <class T>
  static void mustFail(const T&) {
    expect(false, "it returned");
  }

  void check(const JXValue& result) const {
    if (method_ == "hold") mustFail(result);
    const bool isRight =
        method_ == "make" ? result.toBinary().size() == largeSize : result == argument_;
    expect(isRight, "a wrong result");
  }
  /// Posted calls come back at once; ever more of them that hold would take all threads.
  std::string postedMethod() const { return method_ == "hold" ? "echo" : method_; }

  JX::JXProxy proxy_;
  JX::JXProxy throughSurvivor_;
  const int task_;
  std::pair<int, int> cache_;
  std::string method_ = "echo";
  JXValue argument_ = 1;
  JXValue arguments_;
  std::map<std::string, std::function<void()>> kinds_;
  std::atomic<int> begun_{0};
  std::atomic<int> completed_{0};
  std::map<std::string, std::future<Ending>> endings_;
};

/// Whether the text says that a call of the module failed because its robot has gone. A call that
/// ran then says no less than that the connection was lost.
bool tellsTheLoss(const std::string& text, const std::string& moduleName, bool ran) {
  const auto has = [&](const std::string& part) { return text.find(part) != std::string::npos; };
  return has("was lost: ") || (!ran && (has("not sent: ") || text.ends_with("module destroyed") ||
                                        text.ends_with("Can't find service: " + moduleName)));
}

TEST(ARobotKilledInEachPhase, OfEachKindOfCallIsToldAtOnceAndLeavesNothing) {
  const house::Watchdog watchdog("robots killed in phases", std::chrono::seconds(110));
  RobotProcess survivor;
  const auto client = survivor.join("client");
  SteadyClient steady(survivor);
  ASSERT_TRUE(becomesTrue([&] { return steady.calls() > 0; }));
  Footprint here([] { return figuresOf(::getpid()); });
  Footprint there([&] { return survivor.figures(); });
  std::mt19937 random(20);
  int slowestMs = 0;
  const int rounds = std::max<int>(2 * phases, house::rounds(20));
  for (int round = 0; round < rounds; ++round) {
    const auto phase = static_cast<Phase>(round % phases);
    const std::string name = "Victim" + std::to_string(round);
    const int steadyCalls = steady.calls();
    Victim victim(survivor, client, name);
    if (phase == RequestOnItsWay) victim.robot.kill(SIGSTOP);
    if (phase == BeforeACall) victim.killIn(phase, 0);
    victim.begin(phase);
    if (phase != BeforeACall) victim.killIn(phase, static_cast<int>(random() % 5000));
    const auto killed = Clock::now();
    for (auto& [kind, ending] : victim.endings()) {
      const auto [text, at] = ending.get();
      const int tookMs = static_cast<int>(
          std::chrono::duration_cast<std::chrono::milliseconds>(at - killed).count());
      slowestMs = std::max(slowestMs, tookMs);
      const bool ran = phase == MethodRuns && (kind == "typed" || kind == "untyped" ||
                                               kind == "nested" || kind == "promise");
      EXPECT_TRUE(tellsTheLoss(text, name, ran)) << kind << " in phase " << phase << ": " << text;
      EXPECT_LT(tookMs, endWithinMs) << kind << " in phase " << phase;
    }
    ASSERT_TRUE(becomesTrue([&] { return steady.calls() > steadyCalls; })) << "in phase " << phase;
    if (round >= phases) continue;
    here.take();
    there.take();
  }
  RecordProperty("slowestMilliseconds", slowestMs);
  here.expectNoMore();
  there.expectNoMore();
  EXPECT_GT(steady.stop(), 0);
  client->shutdown();
  EXPECT_TRUE(survivor.end());
}

}  // namespace
}  // namespace processes
