// Links that are cut, reset, stalled and that garble bytes, anywhere in a handshake and in each
// kind of call.

#include <gmock/gmock.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <exception>
#include <functional>
#include <future>
#include <map>
#include <string>
#include <vector>

#include <gvmessaging/session.h>
#include <jxcommon/jxproxy.h>

#include "footprint.h"
#include "robotprocess.h"
#include "steadyclient.h"
#include "support/faultproxy.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using namespace std::chrono_literals;
using house::FaultProxy;
using house::Faults;
using JX::JXValue;
using testing::AnyOf;
using testing::HasSubstr;

constexpr int guardMs = 20'000;

// Where the parts of a frame are: docs/protocol.md.
constexpr std::size_t magicAt = 0, typeAt = 4, sizesLastByteAt = 11, messageIdAt = 24;
constexpr std::size_t payloadAt = 64;

enum class Outcome { Loss, Anything, Waiting };

/// What becomes of a link in the middle of a call.
struct Trouble {
  std::string name;
  bool isInReply;
  Faults faults;
  Outcome outcome;  // until the link is cut
};

std::vector<Trouble> troublesIn(bool isInReply, bool isOfAPost) {
  std::vector<Trouble> troubles;
  const auto add = [&](const char* what, std::size_t at, std::size_t Faults::*place,
                       Outcome outcome) {
    Faults faults;
    faults.*place = at;
    const char* const where = isInReply ? " of the reply" : " of the request";
    troubles.push_back({what + std::to_string(at) + where, isInReply, faults, outcome});
  };
  for (const std::size_t at : {std::size_t{1}, messageIdAt, payloadAt}) {
    add("cut at ", at, &Faults::cutAt, Outcome::Loss);
    add("reset at ", at, &Faults::resetAt, Outcome::Loss);
    add("stalled at ", at, &Faults::stallAt, Outcome::Waiting);
  }
  for (const std::size_t at : {magicAt, typeAt, sizesLastByteAt})
    add("garbled at ", at, &Faults::corruptAt, Outcome::Loss);
  // It is the answer to no call; nobody looks at that of a post.
  add("garbled at ", messageIdAt, &Faults::corruptAt,
      isOfAPost ? Outcome::Anything : Outcome::Waiting);
  for (const std::size_t at : {payloadAt, payloadAt + 1})
    add("garbled at ", at, &Faults::corruptAt, Outcome::Anything);
  return troubles;
}

/// The error of an action, or that it has a value.
std::string endOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "a value";
}

using Call = std::function<void(JX::JXProxy&)>;

const std::string text(40, 'x');
const std::string notified = "NotifiedAndCalled";

const std::map<std::string, Call> kinds = {
    {"Typed", [](JX::JXProxy& proxy) { proxy.call<JXValue>("echo", text); }},
    {"Untyped", [](JX::JXProxy& proxy) { proxy.genericCall("echo", std::vector<JXValue>{text}); }},
    {"PostedAndWaitedFor", [](JX::JXProxy& proxy) { proxy.wait(proxy.pCall("echo", text), 0); }},
    // Nothing comes back of a notification, so the call behind it has to tell.
    {notified,
     [](JX::JXProxy& proxy) {
       proxy.pCallNotify("echo", text, 1, 2);
       proxy.call<JXValue>("echo", text);
     }},
    {"LookUp", [](JX::JXProxy& proxy) { proxy.getParentBroker()->isModulePresent("Robot"); }},
    {"Asynchronous",
     [](JX::JXProxy& proxy) {
       proxy.asObject().async<JXValue>("echo", JXValue(text)).value(guardMs);
     }},
};

class AFaultyLink : public testing::TestWithParam<std::string> {
 protected:
  AFaultyLink() {
    EXPECT_TRUE(becomesTrue([&] { return steady.calls() > 0; }));
  }
  /// Ends each test: others were served all the while, and nothing is left.
  void TearDown() override {
    here.expectNoMore();
    there.expectNoMore();
    EXPECT_GT(steady.stop(), 0);
    EXPECT_TRUE(robot.end());
  }

  house::Watchdog watchdog{"a faulty link", 110s};
  RobotProcess robot;
  SteadyClient steady{robot};
  Footprint here{[] { return figuresOf(::getpid()); }};
  Footprint there{[this] { return robot.figures(); }};
};

/// Through a link of its own that gets into this trouble in the middle of the call.
void expectAClearEnd(const RobotProcess& robot, const std::string& kind, const Trouble& trouble) {
  FaultProxy between(robot.port());
  const auto client = JX::JXBroker::createBroker("client", "127.0.0.1", 0, "127.0.0.1",
                                                 between.port(), 0, "", true);
  JX::JXProxy proxy(client, "Robot");
  const Call& call = kinds.at(kind);
  call(proxy);
  between.toServer(trouble.isInReply ? Faults() : trouble.faults);
  between.toClient(trouble.isInReply ? trouble.faults : Faults());
  auto end = std::async(std::launch::async, endOf, [&] { call(proxy); });
  if (trouble.outcome == Outcome::Waiting) {
    EXPECT_TRUE(becomesTrue([&] { return between.hasHeardClient(); }));
    EXPECT_EQ(end.wait_for(50ms), std::future_status::timeout);
    between.toServer({.cutAt = 0});
  }
  const std::string told = end.get();
  const std::string link = "connection to tcp://127.0.0.1:" + std::to_string(between.port());
  if (trouble.outcome == Outcome::Anything) {
  } else if (kind == notified) {  // the call may find the link gone already
    EXPECT_THAT(told, AnyOf(HasSubstr(link + " was lost: "), HasSubstr(link + " has ended"),
                            HasSubstr("module destroyed")));
  } else {
    EXPECT_THAT(told, HasSubstr(link + " was lost: "));
  }
  client->shutdown();
}

TEST_P(AFaultyLink, EndsACallInAClearErrorAndHarmsNobodyElse) {
  int round = 0;
  for (const bool isInReply : {false, true})
    for (const Trouble& trouble : troublesIn(isInReply, GetParam() == notified && !isInReply)) {
      SCOPED_TRACE(trouble.name);
      const int calls = steady.calls();
      expectAClearEnd(robot, GetParam(), trouble);
      ASSERT_TRUE(becomesTrue([&] { return steady.calls() > calls; }));
      if (round++ >= 5) continue;
      here.take();
      there.take();
    }
}

std::vector<std::string> namesOfKinds() {
  std::vector<std::string> names;
  for (const auto& [name, call] : kinds) names.push_back(name);
  return names;
}

INSTANTIATE_TEST_SUITE_P(ACallThatIs, AFaultyLink, testing::ValuesIn(namesOfKinds()),
                         [](const auto& which) { return which.param; });

/// A session that connects through a link of its own.
struct Newcomer {
  Newcomer(const RobotProcess& robot, bool isInReply, const Faults& faults)
      : between(robot.port()) {
    isInReply ? between.toClient(faults) : between.toServer(faults);
    connecting = session->connect(url);
  }
  ~Newcomer() { session->close().wait(guardMs); }

  FaultProxy between;
  const std::string url = "tcp://127.0.0.1:" + std::to_string(between.port());
  const boost::shared_ptr<gv::Session> session = boost::make_shared<gv::Session>();
  gv::Future<void> connecting;
};

TEST(AFaultyHandshake, EndsInAClearErrorAtOnceOrWhereItStallsAtItsDeadline) {
  const house::Watchdog watchdog("a faulty handshake");
  RobotProcess robot;
  SteadyClient steady(robot);
  ASSERT_TRUE(becomesTrue([&] { return steady.calls() > 0; }));
  const Footprint there([&] { return robot.figures(); });
  {
    const auto start = Clock::now();
    const Newcomer silent(robot, false, {.stallAt = 80}), unanswered(robot, true, {.stallAt = 80});
    for (const bool isInReply : {false, true})
      for (const Trouble& trouble : troublesIn(isInReply, false)) {
        if (trouble.outcome == Outcome::Waiting) continue;
        SCOPED_TRACE(trouble.name);
        const Newcomer newcomer(robot, isInReply, trouble.faults);
        if (trouble.outcome == Outcome::Loss) {
          EXPECT_THAT(newcomer.connecting.error(guardMs), HasSubstr(newcomer.url + ": "));
        }
        EXPECT_NE(newcomer.connecting.wait(guardMs), gv::FutureState::Running);
      }
    EXPECT_LT(millisecondsSince(start), 5000);
    for (const Newcomer* stalled : {&silent, &unanswered})
      EXPECT_THAT(stalled->connecting.error(guardMs),
                  HasSubstr(stalled->url + " did not answer within 10000 ms"));
    EXPECT_GT(millisecondsSince(start), 9500);
  }
  there.expectNoMoreDescriptors();
  EXPECT_GT(steady.stop(), 0);
  EXPECT_TRUE(robot.end());
}

}  // namespace
}  // namespace processes
