#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gv/blocking.h>

#include "src/net/connector.h"
#include "src/net/listener.h"
#include "src/net/reactor.h"
#include "src/net/readers.h"
#include "src/net/stream.h"
#include "support/log_capture.h"
#include "support/rawpeer.h"
#include "support/watchdog.h"
#include "tests/streamrecorder.h"

static std::atomic<bool> acceptsFail{false};

/// In place of the system's, also for the library: without descriptors while a test says so. A
/// limit on descriptors would hit the sanitizers, too, which open some to look at objects.
extern "C" [[gnu::visibility("default")]] int accept4(int socket, sockaddr* address,
                                                      socklen_t* size, int flags) {
  static const auto next = reinterpret_cast<decltype(&accept4)>(::dlsym(RTLD_NEXT, "accept4"));
  if (!acceptsFail) return next(socket, address, size, flags);
  errno = EMFILE;
  return -1;
}

namespace gv::net {
namespace {

using namespace std::chrono_literals;
using house::RawPeer;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using StreamPtr = std::shared_ptr<Stream>;

constexpr std::size_t MiB = 1u << 20;

/// A listener on a free port of the loopback address that hands out what it accepts.
class Net : public testing::Test {
 protected:
  explicit Net(const wire::Limits& limits = {}) : limits_(limits) {}

  std::shared_ptr<Listener> listen(std::uint16_t port) {
    const auto give = [accepted = accepted_](StreamPtr stream) {
      accepted->give(std::move(stream));
    };
    return Listener::listen("127.0.0.1", port, give, limits_);
  }
  std::uint16_t port() const { return listener_->boundPort(); }
  StreamPtr accept() { return accepted_->take(); }

  StreamPtr connect() {
    Handover<ConnectResult> results;
    const auto attempt = Connector::connect(
        "127.0.0.1", port(), 10s, [&](ConnectResult r) { results.give(std::move(r)); }, limits_);
    auto result = results.take();
    if (!result.stream) throw std::runtime_error(result.error);
    return result.stream;
  }

  static void waitUntilPostedHasRun() {
    Handover<int> behind;
    Reactor::post([&] { behind.give(0); });
    behind.take();
  }

  static ConnectResult resultOf(const std::string& host, std::uint16_t port,
                                std::chrono::milliseconds bound) {
    Handover<ConnectResult> results;
    Connector::connect(host, port, bound, [&](ConnectResult r) { results.give(std::move(r)); });
    return results.take();
  }

  const wire::Limits limits_;
  house::Watchdog watchdog_{"net test"};
  std::shared_ptr<Handover<StreamPtr>> accepted_ = std::make_shared<Handover<StreamPtr>>();
  std::shared_ptr<Listener> listener_ = listen(0);
};

using Closing = Net;
using Listening = Net;
using Connecting = Net;

TEST_F(Closing, EndsAStreamOnceWhoeverDoesIt) {
  for (int round = 0; round < 200; ++round) {
    RawPeer peer = RawPeer::connectTo(port());
    const StreamPtr stream = accept();
    const auto recorder = std::make_shared<StreamRecorder>();
    stream->start(recorder);
    std::atomic<int> ready = 0;
    const auto race = [&](auto action) {
      return std::thread([&ready, action] {
        for (++ready; ready < 3;) std::this_thread::yield();
        action();
      });
    };
    std::array threads = {race([&] { stream->close("first"); }), race([&] {
                            while (stream->send(std::string_view("x")))
                              ;
                          }),
                          race([&] { peer.reset(); })};
    for (auto& thread : threads) thread.join();
    EXPECT_NE("still open", recorder->waitForEnd());
    stream->close("again");
    waitUntilPostedHasRun();
    ASSERT_EQ(1, recorder->ends());
    ASSERT_FALSE(recorder->gotBytesAfterEnd());
  }
}

/// A stream and the socket at its other end.
class Streams : public Net {
 protected:
  explicit Streams(const wire::Limits& limits = {}) : Net(limits) {}

  std::shared_ptr<StreamRecorder> start(StreamRecorder::OnBytes onBytes = {}) {
    auto recorder = std::make_shared<StreamRecorder>(std::move(onBytes));
    stream->start(recorder);
    return recorder;
  }

  RawPeer peer = RawPeer::connectTo(port());
  StreamPtr stream = accept();
};

TEST_F(Streams, ReadNothingBeforeTheyAreStarted) {
  peer.send("early");
  peer.close();
  const auto recorder = start();
  EXPECT_EQ("connection closed by peer", recorder->waitForEnd());
  EXPECT_EQ("early", recorder->bytes());
}

TEST_F(Streams, CloseWhenTheLastHandleGoesBeforeTheStart) {
  stream.reset();
  EXPECT_EQ("", peer.receive(1));
}

TEST_F(Streams, TellTheirEndAlsoWhenTheyAreStartedAfterIt) {
  stream->close("refused");
  EXPECT_EQ("", peer.receive(1));
  const auto recorder = start();
  EXPECT_EQ("refused", recorder->waitForEnd());
}

TEST_F(Streams, CanBeClosedAndDroppedByTheirHandler) {
  const auto recorder = start([&](std::span<const char>) {
    stream->close("enough");
    stream.reset();
  });
  peer.send("x");
  EXPECT_EQ("enough", recorder->waitForEnd());
  EXPECT_EQ("", peer.receive(1));
}

TEST_F(Streams, EndWithTheTextOfAnExceptionOfTheirHandler) {
  const auto recorder =
      start([](std::span<const char>) { throw std::runtime_error("no such thing"); });
  peer.send("x");
  EXPECT_EQ("handler failed: no such thing", recorder->waitForEnd());
}

// The last words of a peer that went must not be lost because writing to it fails first.
TEST_F(Streams, DeliverWhatThePeerSentBeforeWritingFailed) {
  Handover<int> entered, left;
  bool first = true;
  const auto recorder = start([&](std::span<const char>) {
    if (!std::exchange(first, false)) return;
    entered.give(0);
    left.take();
    stream->send(std::string_view("x"));
  });
  peer.send("a");
  entered.take();
  peer.send("bye");
  peer.reset();
  left.give(0);
  EXPECT_THAT(recorder->waitForEnd(), testing::AnyOf("Connection reset by peer", "Broken pipe"));
  EXPECT_EQ("abye", recorder->bytes());
}

// One thread sends and then reads: it would hang if sending ever blocked.
TEST_F(Streams, QueueWithoutBlockingForASlowReaderAndKeepTheOrder) {
  constexpr std::size_t frames = 40;
  start();
  for (std::size_t i = 0; i < frames; ++i) {
    ASSERT_TRUE(stream->send(std::vector<char>(MiB, static_cast<char>(i))));
    ASSERT_LE(stream->pendingBytes(), (i + 1) * MiB);
  }
  EXPECT_GT(stream->pendingBytes(), 20 * MiB);
  for (std::size_t i = 0; i < frames; ++i)
    ASSERT_TRUE(peer.receiveAll(MiB) == std::string(MiB, static_cast<char>(i))) << i;
  // The last bytes may be here before the write that brought them has returned.
  const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (stream->pendingBytes() > 0 && std::chrono::steady_clock::now() < guard)
    std::this_thread::yield();
  EXPECT_EQ(0u, stream->pendingBytes());
}

TEST_F(Streams, KeepTheFramesOfManySendersWhole) {
  constexpr std::uint32_t senders = 4, frames = 1000;
  std::vector<std::thread> threads;
  for (std::uint32_t sender = 0; sender < senders; ++sender)
    threads.emplace_back([&, sender] {
      for (std::uint32_t i = 0; i < frames; ++i) {
        const std::array<std::uint32_t, 3> head = {sender, i, (i * 37) % 5000};
        const std::vector<char> body(head[2], static_cast<char>(sender));
        const std::array<Bytes, 2> pieces = {
            Bytes(reinterpret_cast<const char*>(head.data()), sizeof head), body};
        EXPECT_TRUE(stream->send(pieces));
      }
    });
  std::array<std::uint32_t, senders> next{};
  for (std::uint32_t i = 0; i < senders * frames; ++i) {
    std::array<std::uint32_t, 3> head;
    std::memcpy(head.data(), peer.receiveAll(sizeof head).data(), sizeof head);
    ASSERT_LT(head[0], senders);
    ASSERT_EQ(next[head[0]]++, head[1]);
    ASSERT_EQ(std::string(head[2], static_cast<char>(head[0])), peer.receiveAll(head[2]));
  }
  for (auto& thread : threads) thread.join();
}

TEST_F(Streams, DeliverPendingOutputBeforeAGracefulEnd) {
  const auto recorder = start();
  peer.send("never read by the handler, and no reason for a reset");
  EXPECT_TRUE(stream->send(std::vector<char>(20 * MiB, 'p')));
  stream->closeAfterFlush("goodbye", 30s);
  EXPECT_FALSE(stream->send(std::string_view("late")));
  EXPECT_EQ(20 * MiB, peer.receiveAll(21 * MiB).size());
  EXPECT_EQ(0, recorder->ends());
  peer.close();
  EXPECT_EQ("goodbye", recorder->waitForEnd());
}

TEST_F(Streams, EndInTimeWhenThePeerDoesNotTakeThePendingOutput) {
  const auto recorder = start();
  EXPECT_TRUE(stream->send(std::vector<char>(20 * MiB)));
  stream->closeAfterFlush("goodbye", 50ms);
  EXPECT_EQ("goodbye", recorder->waitForEnd());
}

/// Blocks in its first input until it has lost its turn; then reads for itself, as a call does that
/// waits for a call back.
class BorrowerInTurn : public StreamHandler {
 public:
  BorrowerInTurn(StreamPtr own, RawPeer& peer) : own_(std::move(own)), peer_(peer) {}

  std::span<char> inputSpace() override { return space_; }
  void onInput(std::size_t count) override {
    if (first_ == std::this_thread::get_id() && count > 0)
      return seen_.push_back(own_->hasLostTurn());
    if (first_ != std::thread::id()) return;
    first_ = std::this_thread::get_id();
    const Readers::ForeignCode foreign;
    while (!own_->hasLostTurn()) const BlockingRegion region;
    while (seen_.empty()) {
      peer_.send("more");
      own_->readWhile([this] { return seen_.empty(); });
    }
    told_.give(seen_.front());
  }
  void onClosed(const std::string&) override {}

  bool tookItForLost() { return told_.take(); }

 private:
  const StreamPtr own_;
  RawPeer& peer_;
  std::array<char, 64> space_;
  std::atomic<std::thread::id> first_{};
  std::vector<bool> seen_;  // of the first thread
  Handover<bool> told_;
};

TEST_F(Streams, AreReadWholeByThreadsThatLostTheirTurnAndWait) {
  const auto borrower = std::make_shared<BorrowerInTurn>(stream, peer);
  stream->start(borrower);
  peer.send("first");
  EXPECT_FALSE(borrower->tookItForLost());
  stream->close("");
}

/// Takes a while for each byte, and leaves what it does not come to in its turn.
class SlowHandler : public StreamHandler {
 public:
  SlowHandler(StreamPtr own, std::function<void(int)> onByte)
      : own_(std::move(own)), onByte_(std::move(onByte)) {}

  std::span<char> inputSpace() override { return space_; }
  void onInput(std::size_t count) override {
    left_ += count;
    for (; left_ > 0 && !own_->isTurnOver(); --left_) {
      const auto end = std::chrono::steady_clock::now() + 50us;
      while (std::chrono::steady_clock::now() < end) {
      }
      onByte_(++seen_);
    }
  }
  void onClosed(const std::string&) override {}

 private:
  const StreamPtr own_;
  const std::function<void(int)> onByte_;
  std::array<char, 4096> space_;
  std::size_t left_ = 0;
  int seen_ = 0;
};

TEST_F(Streams, LeaveOthersTheirTurnInTheMiddleOfWhatWasRead) {
  constexpr int bytes = 2000;
  RawPeer other = RawPeer::connectTo(port());
  const StreamPtr second = accept();
  std::atomic<int> seen{0};
  std::atomic<int> before{bytes};
  Handover<bool> all;
  second->start(std::make_shared<SlowHandler>(second, [&](int) { before = seen.load(); }));
  const auto onByte = [&](int number) {
    seen = number;
    if (number == 1) other.send("x");
    if (number == bytes) all.give(true);
  };
  stream->start(std::make_shared<SlowHandler>(stream, onByte));
  peer.send(std::string(bytes, 'x'));
  all.take();
  EXPECT_LT(before, bytes / 2);
  for (const StreamPtr& each : {stream, second}) each->close("");
}

class BoundedStreams : public Streams {
 protected:
  static wire::Limits smallLimits() {
    wire::Limits limits;
    limits.outputSlow = MiB;
    limits.outputStop = 16 * MiB;
    return limits;
  }
  BoundedStreams() : Streams(smallLimits()) {}
};

TEST_F(BoundedStreams, StopReadingAPeerThatDoesNotReadAndResume) {
  constexpr std::size_t perByte = 4;  // each byte asked for is answered by four
  start([&](std::span<const char> bytes) {
    stream->send(std::vector<char>(perByte * bytes.size(), 'a'));
  });
  const std::string requests(64 * MiB, 'r');
  const std::size_t taken = peer.sendWhileTaken(requests, 500ms);
  EXPECT_LT(taken, requests.size());
  // One turn of reading may begin just below the limit.
  EXPECT_LE(stream->pendingBytes(), limits_.outputStop + perByte * MiB);
  EXPECT_EQ(perByte * taken, peer.receiveAll(perByte * taken).size());
  peer.send("more");
  EXPECT_EQ(std::string(4 * perByte, 'a'), peer.receiveAll(4 * perByte));
}

TEST_F(BoundedStreams, SendEachOtherLargeFramesAtOnceWithoutADeadlock) {
  const StreamPtr client = connect(), server = accept();
  constexpr std::size_t size = 12 * MiB;
  const auto atClient = std::make_shared<StreamRecorder>();
  const auto atServer = std::make_shared<StreamRecorder>();
  for (const auto& end : {client, server})
    for (std::size_t i = 0; i < size; i += MiB) end->send(std::vector<char>(MiB));
  // Both have more pending than they would go on reading beside, were it not for this:
  ASSERT_GT(std::min(client->pendingBytes(), server->pendingBytes()), limits_.outputSlow);
  client->start(atClient);
  server->start(atServer);
  EXPECT_EQ(size, atClient->waitForBytes(size).size());
  EXPECT_EQ(size, atServer->waitForBytes(size).size());
}

TEST_F(Connecting, NamesHostPortAndCauseOfARefusal) {
  EXPECT_THAT(resultOf("no-such-host.invalid", 1, 20s).error,
              StartsWith("cannot connect to no-such-host.invalid:1: "));
  const std::uint16_t freePort = port();
  listener_->close();
  EXPECT_EQ("cannot connect to 127.0.0.1:" + std::to_string(freePort) + ": Connection refused",
            resultOf("127.0.0.1", freePort, 5s).error);
}

TEST_F(Connecting, EndsWithinItsBoundWhenNobodyAnswers) {
  const house::BlackHole silent;
  EXPECT_THAT(resultOf("127.0.0.1", silent.listening.port(), 150ms).error,
              AllOf(StartsWith("cannot connect to 127.0.0.1:"), HasSubstr("150 ms")));
}

TEST_F(Connecting, CanBeCancelledAndAnswersOnce) {
  const house::BlackHole silent;
  Handover<ConnectResult> results;
  const auto attempt = Connector::connect("127.0.0.1", silent.listening.port(), 60s,
                                          [&](ConnectResult r) { results.give(std::move(r)); });
  attempt->cancel();
  attempt->cancel();
  EXPECT_THAT(results.take().error, HasSubstr("cancelled"));
  waitUntilPostedHasRun();
  EXPECT_EQ(0u, results.waiting());
}

TEST_F(Listening, LeavesItsPortFreeWhenCloseReturns) {
  for (int round = 0; round < 100; ++round) {
    const std::uint16_t same = port();
    RawPeer peer = RawPeer::connectTo(same);
    const StreamPtr stream = accept();
    listener_->close();
    listener_->close();
    ASSERT_THROW(RawPeer::connectTo(same), std::system_error);
    listener_ = listen(same);
  }
}

TEST_F(Listening, WaitsForDescriptorsWithoutSpinning) {
  house::LogCapture log;
  const std::string text =
      "accepting is paused: " + std::error_code(EMFILE, std::system_category()).message();
  acceptsFail = true;
  const RawPeer peer = RawPeer::connectTo(port());
  ASSERT_TRUE(log.waitForText(text));
  const std::clock_t before = std::clock();
  std::this_thread::sleep_for(400ms);  // the time in which a spinning loop would show
  const double used = static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC;
  acceptsFail = false;
  EXPECT_LT(used, 0.15);
  EXPECT_EQ(1, log.count(text));
  EXPECT_TRUE(accept());
}

}  // namespace
}  // namespace gv::net
