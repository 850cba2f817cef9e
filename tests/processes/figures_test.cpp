// Who waits for whom, told by processes that can do nothing else any more.

#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gvmessaging/figures.h>
#include <gvmessaging/session.h>

#include "observe.h"
#include "support/child_process.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using gv::CallFigures;
using Names = std::vector<std::string>;
using testing::HasSubstr;

constexpr int guardMs = 20'000;

std::string peerSession(const gv::Figures& of, std::uint64_t connection) {
  for (const auto& each : of.connections)
    if (each.id == connection) return each.session;
  return {};
}

/// What the sessions of a network said, by their ids; and the calls among them as a tool draws
/// them.
struct Network {
  std::map<std::string, gv::Figures> sessions;

  /// The call at the other end of one that a session made; null where it cannot be told.
  const CallFigures* servedEnd(const gv::Figures& maker, const CallFigures& made) const {
    const auto found = sessions.find(peerSession(maker, made.connection));
    if (found == sessions.end()) return nullptr;
    for (const CallFigures& call : found->second.calls)
      if (call.isServed && call.message == made.message &&
          peerSession(found->second, call.connection) == maker.session)
        return &call;
    return nullptr;
  }

  /// "service.method" of a served call and those that it waits for; "deadlock" at the end where
  /// that is an object which is on the way there.
  std::string wayFrom(const gv::Figures& session, const CallFigures& served,
                      Names above = {}) const {
    const std::string name = served.serviceName + "." + served.memberName;
    if (std::count(above.begin(), above.end(), name) > 0) return name + " deadlock";
    above.push_back(name);
    for (const CallFigures& made : session.calls) {
      const bool isChild = !made.isServed && made.parent == served.message &&
                           made.parentConnection == served.connection;
      const CallFigures* next = isChild ? servedEnd(session, made) : nullptr;
      if (!next || next->trace != served.trace || next->parent != served.message) continue;
      return name + " " + wayFrom(sessions.at(peerSession(session, made.connection)), *next, above);
    }
    return name;
  }
};

/// Three services, each of a process of its own.
class FiguresOfProcesses : public testing::Test {
 protected:
  ~FiguresOfProcesses() override { client->close().wait(guardMs); }

  /// With so many threads each at most.
  void begin(const std::string& threads) {
    start("A", threads);
    client->connect(urlOfA).value(guardMs);
    start("B", threads);
    start("C", threads);
    for (const auto& [name, process] : processes)
      objects[name] = client->service(name).value(guardMs);
  }
  void start(const std::string& name, const std::string& threads) {
    Names words{name};
    if (!urlOfA.empty()) words.push_back(urlOfA);
    processes[name] = std::make_unique<house::ChildProcess>(
        TEST_CHAIN, words, Names{"GV_EVENTLOOP_MAX_THREADS=" + threads});
    const std::string url = urlIn(processes[name]->waitForLine("listening on "));
    if (urlOfA.empty()) urlOfA = url;
  }
  gv::Figures ask(const std::string& name) {
    return objects[name].async<gv::Figures>("figures").value(guardMs);
  }
  /// The way of the first call that the test has made of a service.
  std::string wayFrom(const std::string& name) {
    Network network;
    for (const auto& each : processes) {
      const gv::Figures figures = ask(each.first);
      network.sessions[figures.session] = figures;
    }
    const gv::Figures& first = network.sessions.at(ask(name).session);
    for (const CallFigures& call : first.calls)
      if (call.isServed && call.parent == 0) return network.wayFrom(first, call);
    return {};
  }

  house::Watchdog watchdog{"figures"};
  std::string urlOfA;
  std::map<std::string, std::unique_ptr<house::ChildProcess>> processes;
  std::map<std::string, gv::Object<gv::Empty>> objects;
  boost::shared_ptr<gv::Session> client = boost::make_shared<gv::Session>();
};

TEST_F(FiguresOfProcesses, ShowAChainThoughEveryThreadIsBlockedAndNothingWhenItHasBroken) {
  begin("1");
  const auto start = Clock::now();
  const auto call = objects["A"].async<void>("through", Names{"B", "C"});
  ASSERT_TRUE(becomesTrue([&] { return wayFrom("A") == "A.through B.through C.through"; }))
      << wayFrom("A");
  for (const auto& [name, process] : processes) {
    // Their calls are listed before they wait.
    EXPECT_TRUE(becomesTrue([&, of = name] { return ask(of).eventLoop.blocked == 1; })) << name;
    EXPECT_EQ(ask(name).eventLoop.maxThreads, 1u) << name;
  }
  ASSERT_TRUE(becomesTrue([&] { return ask("A").calls.at(0).age >= 100; }));
  EXPECT_LE(ask("A").calls.at(0).age, static_cast<unsigned>(millisecondsSince(start)) + 20);

  EXPECT_TRUE(processes["C"]->kill(SIGKILL));
  EXPECT_THAT(call.error(guardMs), HasSubstr("lost"));
  for (const char* name : {"A", "B"})
    EXPECT_TRUE(becomesTrue([&] { return ask(name).callCount == 0; })) << name;
}

TEST_F(FiguresOfProcesses, NameADeadlockAndListTheOldestOfVeryManyCalls) {
  begin("2");
  std::vector<gv::Future<void>> calls;
  const auto call = [&](const Names& names) {
    calls.push_back(objects["A"].async<void>("through", names));
  };
  call({"B", "A"});
  const std::string deadlock = "A.through B.through A.through deadlock";
  ASSERT_TRUE(becomesTrue([&] { return wayFrom("A") == deadlock; })) << wayFrom("A");
  const auto underWay = ask("A").callCount;
  for (int i = 0; i < 1100; ++i) call({});
  ASSERT_TRUE(becomesTrue([&] { return ask("A").callCount == underWay + 1100; }));
  EXPECT_EQ(ask("A").calls.size(), 1000u);
  EXPECT_EQ(wayFrom("A"), deadlock);
}

}  // namespace
}  // namespace processes
