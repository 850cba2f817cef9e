// Peers that ask for much and take nothing, beside others that must not notice.

#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <future>
#include <mutex>
#include <numeric>
#include <string>
#include <string_view>
#include <utility>
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

/// What a client says that makes a call with a large reply, one that takes longer than a reader is
/// left alone, and a post.
struct Requests {
  static constexpr int replySize = 1 << 20;
  static constexpr int longCallMs = 12;

  std::string hello;
  std::string call;
  std::string longCall;
  std::string post;
};

Requests record(int port) {
  house::FaultProxy between(port);
  auto recording = between.recordNext();
  const auto session = boost::make_shared<gv::Session>();
  session->connect("tcp://127.0.0.1:" + std::to_string(between.port())).value(guardMs);
  const auto server = session->service("Server").value(guardMs);
  server.call<gv::Buffer>("make", Requests::replySize);
  server.call<void>("doze", Requests::longCallMs);
  server.post("add", 1, 2);
  session->close().wait(guardMs);
  Requests requests;
  for (const FrameBytes& frame : framesOf(recording.get().toServer)) {
    if (frame.type() == Hello) requests.hello = frame.bytes();
    if (frame.type() == Call) requests.call = std::exchange(requests.longCall, frame.bytes());
    if (frame.type() == Post && requests.post.empty()) requests.post = frame.bytes();
  }
  return requests;
}

std::vector<int> latenciesUs(const gv::Object<gv::Empty>& server, std::chrono::milliseconds time) {
  std::vector<int> latencies;
  const auto end = Clock::now() + time;
  for (int i = 0; Clock::now() < end; ++i) {
    const auto start = Clock::now();
    EXPECT_EQ(server.call<int>("add", i, 1), i + 1);
    latencies.push_back(static_cast<int>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count()));
  }
  return latencies;
}

/// Sends a request over and over for a time, never reads, and expects that the server stays within
/// a bound and that a call of its other clients takes so many times as long as before at most.
class ThatNeverRead : public GreedyPeers {
 protected:
  void flood(const std::string& request, std::chrono::seconds time, long mostKiB, int mostTimes) {
    const auto server = client->service("Server").value(guardMs);
    const auto before = latenciesUs(server, 1s);
    const Figures atFirst = figuresOf(process.pid());
    house::RawPeer greedy = house::RawPeer::connectTo(port);
    greedy.send(requests.hello);
    ASSERT_TRUE(receiveFrame(greedy));
    std::string many;
    for (int i = 0; i < inPortion; ++i) many += request;
    auto flooding = std::async(std::launch::async, [&, end = Clock::now() + time] {
      std::size_t sent = 0;
      while (Clock::now() < end)
        sent += greedy.sendWhileTaken(std::string_view(many).substr(sent % many.size()), 100ms);
      return sent / request.size();
    });
    const auto during = latenciesUs(server, time);
    const std::size_t taken = flooding.get();
    RecordProperty("requestsTaken", std::to_string(taken));
    EXPECT_GT(taken, 1000);
    const long grown = figuresOf(process.pid()).mostResidentKiB - atFirst.residentKiB;
    RecordProperty("kibibytesGrown", std::to_string(grown));
    for (const int hundredths : {50, 95, 99, 100}) {
      const std::string name = "percentile" + std::to_string(hundredths) + "Microseconds";
      RecordProperty(name + "Before", percentile(before, hundredths));
      RecordProperty(name, percentile(during, hundredths));
    }
    if (house::isSanitized) return;
    EXPECT_LT(grown, mostKiB);
    // A call that has to wait for the processor takes 50 us on its own.
    EXPECT_LT(percentile(during, 50), mostTimes * std::max(percentile(before, 50), 50));
    EXPECT_LT(percentile(during, 95), mostTimes * std::max(percentile(before, 95), 500));
    EXPECT_LT(percentile(during, 100), 1'000'000) << "others had no turn";
  }

  static constexpr int inPortion = 1000;
  const int port = portIn(url);
  const Requests requests = record(port);
};

constexpr long MiB = 1024;
// Such as it takes until no more is read.
constexpr auto untilFull = house::isSanitized ? 2s : 9s;

std::string queued(std::string call) {
  call[5] = 2;
  return call;
}

// What may wait for the peer is 128 MiB; what the threads are making comes on top.
TEST_F(ThatNeverRead, TheirLargeRepliesCostTheirBudgetAndNoMore) {
  flood(requests.call, untilFull, 192 * MiB, 5);
}

TEST_F(ThatNeverRead, TheirLargeRepliesThatOtherThreadsMakeCostTheirBudgetAndNoMore) {
  flood(queued(requests.call), untilFull, 256 * MiB, 5);
}

// They are served as fast as they come, and the processor is taken by that.
TEST_F(ThatNeverRead, TheirPostsCostTheirBudgetAndNoMore) {
  flood(requests.post, 1s, 64 * MiB, 10);
}

// More than may wait for them; what they were not to have yet was held back.
TEST_F(GreedyPeers, ThatReadAtLastGetAllReplies) {
  constexpr int count = house::isSanitized ? 80 : 200;
  const Requests requests = record(portIn(url));
  const long before = figuresOf(process.pid()).residentKiB;
  house::RawPeer late = house::RawPeer::connectTo(portIn(url));
  late.send(requests.hello);
  ASSERT_TRUE(receiveFrame(late));
  for (int i = 0; i < count; ++i) late.send(queued(requests.call));
  ASSERT_TRUE(
      becomesTrue([&] { return figuresOf(process.pid()).residentKiB > before + 20 * MiB; }));
  for (int i = 0; i < count; ++i) {
    const auto reply = receiveFrame(late);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->type(), Reply) << i;
  }
}

// The thread that reads is replaced in each of them, and has others served between two.
TEST_F(GreedyPeers, WhoseCallsTakeLongKeepNeitherOthersWaitingNorNewcomers) {
  constexpr int mostUs = 500'000;
  const Requests requests = record(portIn(url));
  const auto server = client->service("Server").value(guardMs);
  house::RawPeer greedy = house::RawPeer::connectTo(portIn(url));
  greedy.send(requests.hello);
  ASSERT_TRUE(receiveFrame(greedy));
  std::string many;
  for (int i = 0; i < 500; ++i) many += requests.longCall;
  greedy.send(many);  // for some seconds
  ASSERT_TRUE(receiveFrame(greedy));
  EXPECT_LT(percentile(latenciesUs(server, 1s), 100), mostUs);
  const auto start = Clock::now();
  const auto newcomer = boost::make_shared<gv::Session>();
  newcomer->connect(url).value(guardMs);
  EXPECT_LT(Clock::now() - start, std::chrono::microseconds(mostUs));
  newcomer->close().wait(guardMs);
}

}  // namespace
}  // namespace processes
