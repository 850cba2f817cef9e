// Two peers over real TCP, each serving objects to the other.

#include "src/rpc/connection.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gv/eventloop.h>
#include <gvtype/dynamicobjectbuilder.h>

#include "memorypeer.h"
#include "rawpeer.h"
#include "src/net/reactor.h"
#include "src/rpc/remoteobject.h"
#include "src/session/peers.h"
#include "src/wire/valuewriter.h"
#include "streamrecorder.h"
#include "support/log_capture.h"
#include "support/watchdog.h"

namespace gv {
namespace {

using rpc::Connection;
using testing::HasSubstr;

constexpr int guardMs = 20'000;
constexpr unsigned calculatorId = 7;

/// Something that a method can wait for, for as long as the test likes.
struct Gate {
  Promise<void> open;
  std::atomic<int> waiting{0};
};

/// One side: a set of connections and the objects that it serves.
class Side : public rpc::ServiceHost {
 public:
  explicit Side(const std::string& name, const wire::Limits& limits = {}) {
    rpc::Greeting own;
    own.sessionId = name;
    peers = std::make_shared<Peers>(own, limits);
  }
  void start(const std::shared_ptr<Side>& self) {
    peers->setOwner(self, [](const auto&) {});
  }

  static constexpr unsigned replaceableId = 8;

  void replace(Object<Empty> object) {
    const std::lock_guard lock(mutex_);
    std::swap(object, replaceable_);
  }

  Object<Empty> findService(unsigned id) const override {
    if (id == replaceableId) {
      const std::lock_guard lock(mutex_);
      return replaceable_;
    }
    const auto found = objects.find(id);
    return found == objects.end() ? Object<Empty>() : found->second;
  }

  std::shared_ptr<Peers> peers;
  std::map<unsigned, Object<Empty>> objects;  // constant while connected

 private:
  mutable std::mutex mutex_;  // guards what follows
  Object<Empty> replaceable_;
};

std::shared_ptr<Side> makeSide(const std::string& name, const wire::Limits& limits = {}) {
  auto side = std::make_shared<Side>(name, limits);
  side->start(side);
  return side;
}

Object<Empty> makeCalculator(const std::shared_ptr<Gate>& gate) {
  DynamicObjectBuilder builder;
  builder.advertiseMethod("add", [](int a, int b) { return a + b; });
  builder.advertiseMethod("nothing", [] {});
  builder.advertiseMethod("fail", [](const std::string& text) { throw std::runtime_error(text); });
  builder.advertiseMethod("throwNumber", [] { throw 5; });
  builder.advertiseMethod("echo", [](const AnyValue& value) { return value; });
  builder.advertiseMethod("count", [](const AnyArguments& all) { return all.args.size(); });
  builder.advertiseMethod(
      "large", [](int size) { return std::string(static_cast<std::size_t>(size), 'x'); });
  builder.advertiseProperty<int>("precision", 5);
  builder.advertiseMethod("hold", [gate] {
    ++gate->waiting;
    gate->open.future().wait();
    return 1;
  });
  // Blocks and says so to nobody.
  builder.advertiseMethod("spin", [gate] {
    ++gate->waiting;
    while (gate->open.future().isRunning()) std::this_thread::yield();
    return 1;
  });
  builder.advertiseMethod("later", [] {
    return getEventLoop()->async([]() -> std::string { return "at last"; },
                                 std::chrono::milliseconds(1));
  });
  return builder.object();
}

class ConnectionTest : public testing::Test {
 protected:
  ConnectionTest() {
    server->objects[calculatorId] = makeCalculator(gate);
    acceptor = server->peers->listen("tcp://127.0.0.1:0");
    connection = client->peers->dial(url(), std::chrono::seconds(10)).value(guardMs);
    calculator = rpc::RemoteObject::make(connection, calculatorId).value(guardMs);
  }
  ~ConnectionTest() override {
    if (gate->open.future().isRunning()) gate->open.setValue();
    acceptor->close();
    client->peers->close("the test has ended").wait(guardMs);
    server->peers->close("the test has ended").wait(guardMs);
  }

  Url url() const { return Url::tcp("127.0.0.1", acceptor->boundPort()); }

  house::Watchdog watchdog{"a test with peers", std::chrono::seconds(100)};
  std::shared_ptr<Gate> gate = std::make_shared<Gate>();
  std::shared_ptr<Side> server = makeSide("server");
  std::shared_ptr<Side> client = makeSide("client");
  std::shared_ptr<rpc::Acceptor> acceptor;
  Peers::ConnectionPointer connection;
  Object<Empty> calculator;
};

template <class F>
std::pair<FutureException::State, std::string> failureOf(F call) {
  try {
    call();
    return {FutureException::State::Invalid, "no failure"};
  } catch (const FutureException& error) {
    return {error.state(), error.what()};
  }
}

TEST_F(ConnectionTest, CarriesCallsAndResults) {
  EXPECT_EQ(calculator.call<int>("add", 2, 3), 5);
  EXPECT_EQ(calculator.call<int>("add(ii)", 2.0, std::int8_t{3}), 5);
  calculator.call<void>("nothing");
  EXPECT_EQ(calculator.call<std::size_t>("count", 1, std::string("a"), 2.5), 3u);
  EXPECT_EQ(calculator.call<std::string>("later"), "at last");
  const std::map<std::string, std::vector<int>> map = {{"a", {1, 2}}};
  EXPECT_EQ((calculator.call<std::map<std::string, std::vector<int>>>("echo", map)), map);
  EXPECT_EQ(calculator.call<std::string>("large", 5'000'000).size(), 5'000'000u);
}

TEST_F(ConnectionTest, ReachesThePropertiesOfRemoteObjects) {
  const Object<Empty>& own = server->objects[calculatorId];
  EXPECT_EQ(calculator.property<int>("precision").value(guardMs), 5);
  calculator.setProperty("precision", 7).value(guardMs);
  EXPECT_EQ(own.property<int>("precision").value(guardMs), 7);
  EXPECT_THAT(calculator.setProperty("precision", std::string("x")).error(guardMs),
              HasSubstr("property 'precision': cannot convert"));
}

TEST_F(ConnectionTest, TellsTheEndingsApart) {
  using State = FutureException::State;
  const auto thrown = failureOf([&] { calculator.call<void>("fail", std::string("out of ink")); });
  EXPECT_EQ(thrown, std::pair(State::UserError, std::string("out of ink")));
  const auto unknown = failureOf([&] { calculator.call<int>("thrice", 1); });
  EXPECT_THAT(unknown.second, HasSubstr("thrice"));
  const auto unfit = failureOf([&] { calculator.call<int>("add", 1, 5'000'000'000); });
  EXPECT_EQ(unfit.first, State::NotSent);
  EXPECT_THAT(unfit.second, HasSubstr("argument 2"));
  const auto tooLarge = failureOf([&] { calculator.call<std::string>("large", 100'000'000); });
  EXPECT_THAT(tooLarge.second, HasSubstr("more than the limit"));
  EXPECT_EQ(calculator.call<int>("add", 1, 1), 2) << "the connection lives on";
}

TEST_F(ConnectionTest, AnswersWhateverAMethodThrows) {
  const auto thrown = failureOf([&] { calculator.call<void>("throwNumber"); });
  EXPECT_EQ(thrown, std::pair(FutureException::State::UserError, std::string("unknown exception")));
}

TEST_F(ConnectionTest, RunsCallbacksOfItsUsersOnTheEventLoop) {
  const auto isOnLoop = calculator.async<int>("add", 1, 1).then([](Future<int>) {
    return getEventLoop()->isInThisContext();
  });
  EXPECT_TRUE(isOnLoop.value(guardMs));
}

TEST_F(ConnectionTest, DestroysObjectsOfItsUsersOnTheEventLoop) {
  // A description is read by the thread that reads, while the last handle goes elsewhere.
  for (int round = 0; round < 200; ++round) {
    std::atomic<bool> isWrong{false};
    std::atomic<bool> isGone{false};
    struct Guard {
      std::atomic<bool>& isWrong;
      std::atomic<bool>& isGone;
      ~Guard() {
        isWrong = net::Reactor::isThisThread();
        isGone = true;
      }
    };
    {
      DynamicObjectBuilder builder;
      const std::shared_ptr<Guard> guard(new Guard{isWrong, isGone});
      builder.advertiseMethod("nothing", [guard] {});
      server->replace(builder.object());
    }
    const auto asked = rpc::RemoteObject::make(connection, Side::replaceableId);
    server->replace({});
    asked.wait(guardMs);
    while (!isGone) std::this_thread::yield();
    ASSERT_FALSE(isWrong);
  }
}

TEST_F(ConnectionTest, FailsPendingCallsWhenItIsLost) {
  auto pending = calculator.async<int>("hold");
  while (gate->waiting == 0) std::this_thread::yield();
  server->peers->close("power cut");
  const auto lost = failureOf([&] { pending.value(guardMs); });
  EXPECT_EQ(lost.first, FutureException::State::ConnectionLost);
  EXPECT_THAT(lost.second, HasSubstr(url().str()));
  const auto refused = failureOf([&] { calculator.call<int>("add", 1, 1); });
  EXPECT_EQ(refused.first, FutureException::State::NotSent);
}

TEST_F(ConnectionTest, RunsCallbacksOfWhatIsLostWhereTheyMayWaitForTheNetwork) {
  const std::string closed = RawListener().url();
  net::Handover<bool> seen;
  const auto failsInTime = [&] {
    const auto reached = client->peers->dial(closed, std::chrono::milliseconds(20));
    seen.give(reached.wait(guardMs) == FutureState::FinishedWithError);
  };
  // The first one waits for the second: each call fails by itself.
  const auto first = calculator.async<int>("hold"), second = calculator.async<int>("hold");
  const auto sync = FutureCallbackType::Sync;
  first.connect([&](const Future<int>&) { seen.give(second.hasError(guardMs)); }, sync);
  second.connect([&](const Future<int>&) { failsInTime(); }, sync);
  while (gate->waiting < 2) std::this_thread::yield();
  server->peers->close("power cut");
  client->peers->dial(closed, std::chrono::milliseconds(20))
      .connect([&](const auto&) { failsInTime(); }, sync);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(seen.take());
}

TEST_F(ConnectionTest, ServesOthersWhileMethodsBlock) {
  std::vector<Future<int>> held;
  for (int i = 0; i < 100; ++i) held.push_back(calculator.async<int>("hold"));
  // Not queued by its caller, as those are: it must leave the thread that reads all the same.
  std::thread direct([this] { EXPECT_EQ(calculator.call<int>("hold"), 1); });
  while (gate->waiting < 101) std::this_thread::yield();
  EXPECT_EQ(calculator.async<int>("add", 1, 1).value(guardMs), 2);
  gate->open.setValue();
  direct.join();
  for (auto& future : held) EXPECT_EQ(future.value(guardMs), 1);
}

TEST_F(ConnectionTest, ServesOthersWhileAMethodRunsOnAndOn) {
  // In one write, so that they are read together; the first answer must not wait for the second.
  RawPeer peer = RawPeer::connectTo(acceptor->boundPort());
  rpc::Greeting greeting;
  greeting.sessionId = "raw";
  const auto callOf = [this](const std::string& name, std::uint64_t id, std::string_view payload) {
    wire::FrameHeader header;
    header.type = wire::FrameType::Call;
    header.service = calculatorId;
    header.member = calculator.metaObject().findMethod(name).at(0).uid();
    header.messageId = id;
    return frameText(header, payload);
  };
  peer.send(greetingFrame(wire::FrameType::Hello, greeting));
  const auto readFrame = [&peer] {
    const auto header = headerOf(peer.receiveAll(wire::frameHeaderSize));
    return std::pair(header.messageId, peer.receiveAll(header.payloadSize));
  };
  readFrame();  // its greeting
  peer.send(callOf("add", 1, "\x92\x02\x03") + callOf("spin", 2, "\x90") +
            callOf("add", 3, "\x92\x04\x05"));
  EXPECT_EQ(readFrame(), std::pair(std::uint64_t{1}, std::string("\x05")));
  EXPECT_EQ(readFrame(), std::pair(std::uint64_t{3}, std::string("\x09")));
  EXPECT_EQ(calculator.call<int>("add", 1, 1), 2);
  gate->open.setValue();
  EXPECT_EQ(readFrame(), std::pair(std::uint64_t{2}, std::string("\x01")));
}

TEST_F(ConnectionTest, DescribesServicesAndRefusesCallsWhileEveryThreadIsBlocked) {
  EventLoop& loop = *getEventLoop();
  const unsigned ceiling = loop.figures().maxThreads;
  Promise<void> release;
  for (unsigned i = 0; i < ceiling; ++i)
    loop.post([blocked = release.future()] { blocked.wait(); });
  while (loop.figures().blocked < ceiling) std::this_thread::yield();
  // Nor do callbacks of replies stop the reading: they exceed the ceiling, and that is told.
  house::LogCapture log;
  for (int i = 0; i < 2; ++i)
    calculator.async<int>("add", 1, 1)
        .connect([blocked = release.future()](const Future<int>&) { blocked.wait(); },
                 FutureCallbackType::Sync);
  while (loop.figures().blocked < ceiling + 2) std::this_thread::yield();
  EXPECT_TRUE(log.waitForText("block beyond GV_EVENTLOOP_MAX_THREADS"));
  EXPECT_TRUE(rpc::RemoteObject::make(connection, calculatorId).hasValue(guardMs));
  EXPECT_THAT(failureOf([&] { calculator.call<int>("add", 1, 1); }).second,
              HasSubstr("GV_EVENTLOOP_MAX_THREADS (" + std::to_string(ceiling)));
  release.setValue();
}

TEST_F(ConnectionTest, ManyCallersGetTheirOwnAnswers) {
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 8; ++caller)
    callers.emplace_back([this, caller] {
      for (int i = 0; i < 500; ++i)
        ASSERT_EQ(calculator.call<int>("add", caller * 1000, i), caller * 1000 + i);
    });
  for (auto& thread : callers) thread.join();
}

// ---- Peers that break the rules

TEST_F(ConnectionTest, LetsARealClientInBesideThoseThatDrip) {
  std::vector<RawPeer> drips;
  for (int i = 0; i < 100; ++i) {
    drips.push_back(RawPeer::connectTo(acceptor->boundPort()));
    drips.back().send("G");
  }
  const auto late = makeSide("late");
  EXPECT_TRUE(late->peers->dial(url(), std::chrono::seconds(10)).value(guardMs)->isOpen());
  late->peers->close("done").wait(guardMs);
}

TEST(Connections, ThatDoNotFinishTheHandshakeEnd) {
  wire::Limits impatient;
  impatient.handshakeTime = std::chrono::milliseconds(100);
  const auto server = makeSide("server", impatient);
  const auto acceptor = server->peers->listen("tcp://127.0.0.1:0");
  RawPeer stranger = RawPeer::connectTo(acceptor->boundPort());
  stranger.send("GVM\x01");
  EXPECT_EQ(stranger.receiveAll(1), "");
  acceptor->close();
}

}  // namespace
}  // namespace gv
