// Peers that ask for much and take nothing, beside others that must not notice.

#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <boost/make_shared.hpp>
#include <future>
#include <mutex>
#include <numeric>
#include <string>
#include <vector>

#include <gvmessaging/session.h>
#include <gvtype/buffer.h>

#include "conversation.h"
#include "ledger.h"
#include "observe.h"
#include "support/child_process.h"
#include "support/faultproxy.h"
#include "support/rawpeer.h"
#include "support/rounds.h"
#include "support/sanitized.h"
#include "support/watchdog.h"

namespace processes {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr int guardMs = 60'000;

/// A server, and a client of it that is not greedy.
class GreedyPeers : public testing::Test {
 protected:
  GreedyPeers() { client->connect(url).value(guardMs); }
  ~GreedyPeers() override { client->close().wait(guardMs); }

  house::Watchdog watchdog{"greedy peers", 110s};
  Ledger ledger;
  // What is freed goes back to the system, so that the figures tell what it holds; and there are
  // not so many threads that what each of them is making counts.
  house::ChildProcess process{TEST_PEER,
                              {"serve", "Server", "tcp://127.0.0.1:0", ledger.path()},
                              {"MALLOC_MMAP_THRESHOLD_=131072", "GV_EVENTLOOP_MAX_THREADS=16"}};
  const std::string url = urlIn(process.waitForLine("listening on "));
  const boost::shared_ptr<gv::Session> client = boost::make_shared<gv::Session>();
};

/// Of values, the one that so many hundredths of them do not exceed.
int percentile(std::vector<int> values, std::size_t hundredths) {
  std::sort(values.begin(), values.end());
  return values.at((values.size() - 1) * hundredths / 100);
}

TEST_F(GreedyPeers, ThatStandStillAreCutAndHoldUpNeitherTheEmitterNorOtherListeners) {
  constexpr int emissions = 600;  // far more than the limit and what the system holds
  constexpr int size = 100'000;
  constexpr int paceMs = house::isSanitized ? 15 : 1;  // what a listener keeps up with
  house::ChildProcess still(TEST_PEER, {"listen", url});
  still.waitForLine("subscribed");
  const auto server = client->service("Server").value(guardMs);
  std::mutex mutex;  // guards heard
  std::vector<int> heard;
  server
      .connect("seen",
               [&](int number, const gv::Buffer& bytes) {
                 EXPECT_EQ(bytes.size(), std::size_t{size});
                 const std::lock_guard lock(mutex);
                 heard.push_back(number);
               })
      .value(guardMs);
  const Figures before = figuresOf(process.pid());
  still.kill(SIGSTOP);

  const auto took = server.async<std::vector<int>>("emit", emissions, size, paceMs).value(guardMs);

  EXPECT_THAT(process.standardError(),
              HasSubstr("did not read the events of its subscriptions: cut"));
  const int worstUs = *std::max_element(took.begin(), took.end());
  RecordProperty("worstEmissionMicroseconds", worstUs);
  RecordProperty("medianEmissionMicroseconds", percentile(took, 50));
  RecordProperty("p99EmissionMicroseconds", percentile(took, 99));
  if (!house::isSanitized) {
    EXPECT_LT(percentile(took, 90), 10'000);  // others take the processor at times
  }
  EXPECT_LT(worstUs, 1'000'000) << "it waited for its peer";
  const long grown = figuresOf(process.pid()).mostResidentKiB - before.residentKiB;
  RecordProperty("kibibytesGrown", std::to_string(grown));
  if (!house::isSanitized) {
    EXPECT_LT(grown, 64 * 1024);
  }
  std::vector<int> all(emissions);
  std::iota(all.begin(), all.end(), 0);
  EXPECT_TRUE(becomesTrue([&] {
    const std::lock_guard lock(mutex);
    return heard.size() == all.size();
  }));
  const std::lock_guard lock(mutex);
  EXPECT_EQ(heard, all);
}

/// What a client says that makes a call with a large reply, and a post.
struct Requests {
  static constexpr int replySize = 1 << 20;

  std::string hello;
  std::string call;
  std::string post;
};

Requests record(int port) {
  house::FaultProxy between(port);
  auto recording = between.recordNext();
  const auto session = boost::make_shared<gv::Session>();
  session->connect("tcp://127.0.0.1:" + std::to_string(between.port())).value(guardMs);
  const auto server = session->service("Server").value(guardMs);
  server.call<gv::Buffer>("make", Requests::replySize);
  server.post("add", 1, 2);
  session->close().wait(guardMs);
  Requests requests;
  for (const FrameBytes& frame : framesOf(recording.get().toServer)) {
    if (frame.type() == Hello) requests.hello = frame.bytes();
    if (frame.type() == Call) requests.call = frame.bytes();
    if (frame.type() == Post && requests.post.empty()) requests.post = frame.bytes();
  }
  return requests;
}

std::vector<int> latenciesUs(const gv::Object<gv::Empty>& server, int calls) {
  std::vector<int> latencies;
  for (int i = 0; i < calls; ++i) {
    const auto start = Clock::now();
    EXPECT_EQ(server.call<int>("add", i, 1), i + 1);
    latencies.push_back(static_cast<int>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count()));
  }
  return latencies;
}

/// Sends a request over and over, never reads, and expects that a server stays within a bound and
/// that its other clients are served nearly as before.
class ThatNeverRead : public GreedyPeers {
 protected:
  void flood(const std::string& request, int atLeast, long mostKiB) {
    const auto server = client->service("Server").value(guardMs);
    latenciesUs(server, 100);
    const auto before = latenciesUs(server, calls);
    const Figures atFirst = figuresOf(process.pid());
    house::RawPeer greedy = house::RawPeer::connectTo(port);
    greedy.send(requests.hello);
    ASSERT_TRUE(receiveFrame(greedy));
    std::string many;
    for (int i = 0; i < inPortion; ++i) many += request;
    std::atomic<bool> isMeasured{false};
    auto flooding = std::async(std::launch::async, [&] {
      for (int sent = 0; sent < atLeast || !isMeasured; sent += inPortion)
        if (greedy.sendWhileTaken(many, 1s) < many.size()) return sent;
      return atLeast;
    });
    const auto during = latenciesUs(server, calls);
    isMeasured = true;
    RecordProperty("requestsTaken", flooding.get());
    latenciesUs(server, calls);  // the server has read on since
    const long grown = figuresOf(process.pid()).mostResidentKiB - atFirst.residentKiB;
    RecordProperty("kibibytesGrown", std::to_string(grown));
    RecordProperty("medianMicrosecondsBefore", percentile(before, 50));
    RecordProperty("medianMicroseconds", percentile(during, 50));
    RecordProperty("p95MicrosecondsBefore", percentile(before, 95));
    RecordProperty("p95Microseconds", percentile(during, 95));
    if (house::isSanitized) return;
    EXPECT_LT(grown, mostKiB);
    EXPECT_LT(percentile(during, 50), 5 * std::max(percentile(before, 50), floorUs));
  }

  static constexpr int calls = 300;
  static constexpr int inPortion = 1000;
  static constexpr int floorUs = 2000;  // so that other processes decide nothing
  const int port = portIn(url);
  const Requests requests = record(port);
};

constexpr long MiB = 1024;

// What may wait for the peer is 128 MiB; what the threads are making comes on top.
TEST_F(ThatNeverRead, TheirLargeRepliesCostTheirBudgetAndNoMore) {
  flood(requests.call, 20'000, 192 * MiB);
}

TEST_F(ThatNeverRead, TheirLargeRepliesThatOtherThreadsMakeCostTheirBudgetAndNoMore) {
  std::string queued = requests.call;
  queued[5] = 2;
  flood(queued, 20'000, 256 * MiB);
}

TEST_F(ThatNeverRead, TheirPostsCostTheirBudgetAndNoMore) {
  flood(requests.post, house::rounds(100'000), 64 * MiB);
}

}  // namespace
}  // namespace processes
