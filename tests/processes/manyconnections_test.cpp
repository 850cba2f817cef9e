// What connections cost that are there and do nothing, and what those leave that have gone.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gvmessaging/session.h>

#include "ledger.h"
#include "observe.h"
#include "support/child_process.h"
#include "support/rounds.h"
#include "support/sanitized.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using namespace std::chrono_literals;
using SessionPtr = boost::shared_ptr<gv::Session>;

constexpr int guardMs = 20'000;

bool raiseDescriptorLimit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

/// Both ends of the connections: a server, and the sessions of this process.
class ManyConnections : public testing::Test {
 protected:
  /// A session whose connection has carried a call, to the directory.
  SessionPtr connect() const {
    auto session = boost::make_shared<gv::Session>();
    session->connect(url).value(guardMs);
    session->services().value(guardMs);
    return session;
  }

  static void add(gv::Session& session, int calls) {
    const auto object = session.service("Server").value(guardMs);
    for (int i = 0; i < calls; ++i) ASSERT_EQ(object.call<int>("add", i, 1), i + 1);
  }

  void connectAndClose(int times) const {
    for (int i = 0; i < times; ++i) connect()->close().wait(guardMs);
  }

  house::Watchdog watchdog{"many connections", std::chrono::seconds(110)};
  const bool isLimitRaised = raiseDescriptorLimit();  // before the server inherits it
  Ledger ledger;
  house::ChildProcess server{TEST_PEER, {"serve", "Server", "tcp://127.0.0.1:0", ledger.path()}};
  const std::string url = urlIn(server.waitForLine("listening on "));
  const pid_t ends[2] = {server.pid(), ::getpid()};
};

TEST_F(ManyConnections, CostLittleMemoryAndNoTimeWhileTheyAreIdle) {
  constexpr int idleCount = house::isSanitized ? 100 : 1000;
  constexpr int busyCount = 16;
  constexpr long mostKiB = 12;
  ASSERT_TRUE(isLimitRaised);
  connectAndClose(20);  // what the first connections make a process keep is not theirs
  const Figures before[2] = {figuresOf(ends[0]), figuresOf(ends[1])};
  std::vector<SessionPtr> idle;
  for (int i = 0; i < idleCount; ++i) idle.push_back(connect());
  for (int end = 0; end < 2; ++end) {
    const long grown = figuresOf(ends[end]).residentKiB - before[end].residentKiB;
    RecordProperty(end == 0 ? "bytesEachAtTheServer" : "bytesEachAtTheClient",
                   std::to_string(grown * 1024 / idleCount));
    if (!house::isSanitized) {
      EXPECT_LE(grown, mostKiB * idleCount) << (end == 0 ? "at the server" : "at the client");
    }
  }

  std::vector<std::future<void>> busy;
  for (int i = 0; i < busyCount; ++i)
    busy.push_back(std::async(std::launch::async, [this] { add(*connect(), 200); }));
  for (auto& calls : busy) calls.get();

  const std::chrono::milliseconds used[2] = {processorTimeOf(ends[0]), processorTimeOf(ends[1])};
  std::this_thread::sleep_for(3s);
  for (int end = 0; end < 2; ++end) EXPECT_LE(processorTimeOf(ends[end]) - used[end], 60ms);
}

TEST_F(ManyConnections, LeaveNothingBehind) {
  connectAndClose(200);
  const Figures before[2] = {figuresOf(ends[0]), figuresOf(ends[1])};
  const int times = house::rounds(1000);
  connectAndClose(times);
  for (int end = 0; end < 2; ++end) {
    const char* const side = end == 0 ? "the server" : "the client";
    Figures after;
    EXPECT_TRUE(becomesTrue([&] {
      after = figuresOf(ends[end]);
      return after.descriptors <= before[end].descriptors &&
             after.threads <= before[end].threads + 2;  // for a moment's load
    })) << side
        << ": " << after.descriptors << " descriptors, before " << before[end].descriptors << "; "
        << after.threads << " threads, before " << before[end].threads;
    const long grown = after.residentKiB - before[end].residentKiB;
    RecordProperty(end == 0 ? "kibibytesAtTheServer" : "kibibytesAtTheClient",
                   std::to_string(grown));
    if (!house::isSanitized) {
      EXPECT_LE(grown, 1024) << side << ", " << times << " connections later";
    }
  }
}

}  // namespace
}  // namespace processes
