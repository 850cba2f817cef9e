// Two peers over real TCP, each serving objects to the other.

#include "src/rpc/connection.h"

#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gv/eventloop.h>
#include <gvtype/dynamicobjectbuilder.h>

#include "foreignsession.h"
#include "memorypeer.h"
#include "src/net/reactor.h"
#include "src/net/readers.h"
#include "streamrecorder.h"
#include "support/log_capture.h"
#include "support/rawpeer.h"
#include "support/watchdog.h"

namespace gv {
namespace {

using house::RawListener;
using house::RawPeer;
using testing::HasSubstr;

constexpr int guardMs = 20'000;
constexpr unsigned calculatorId = 7;
constexpr unsigned replaceableId = 8;

/// Something that a method can wait for, for as long as the test likes.
struct Gate {
  Promise<void> open;
  std::atomic<int> waiting{0};
};

Object<Empty> makeCalculator(const std::shared_ptr<Gate>& gate) {
  DynamicObjectBuilder builder;
  builder.advertiseMethod("add", [](int a, int b) { return a + b; });
  builder.advertiseMethod("fail", [](const std::string& text) { throw std::runtime_error(text); });
  builder.advertiseMethod("throwNumber", [] { throw 5; });
  builder.advertiseMethod("echo", [](const AnyValue& value) { return value; });
  builder.advertiseMethod("count", [](const AnyArguments& all) { return all.args.size(); });
  builder.advertiseMethod(
      "large", [](int size) { return std::string(static_cast<std::size_t>(size), 'x'); });
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
  builder.advertiseMethod("promise", [gate] { return gate->open.future(); });
  builder.advertiseMethod("later", [] {
    return getEventLoop()->async([]() -> std::string { return "at last"; },
                                 std::chrono::milliseconds(1));
  });
  return builder.object();
}

class ConnectionTest : public testing::Test {
 protected:
  ConnectionTest() {
    server.serve(calculatorId, makeCalculator(gate));
    connection = client.dial(server.url());
    calculator = rpc::RemoteObject::make(connection, calculatorId).value(guardMs);
  }
  ~ConnectionTest() override {
    if (gate->open.future().isRunning()) gate->open.setValue();
  }

  house::Watchdog watchdog{"a test with peers", std::chrono::seconds(100)};
  std::shared_ptr<Gate> gate = std::make_shared<Gate>();
  ForeignSession server{"server"}, client{"client"};
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
  EXPECT_EQ(calculator.call<int>("add(ii)", 2.0, std::int8_t{3}), 5);
  EXPECT_EQ(calculator.call<std::size_t>("count", 1, std::string("a"), 2.5), 3u);
  EXPECT_EQ(calculator.call<std::string>("later"), "at last");
  EXPECT_EQ(calculator.call<std::string>("large", 5'000'000).size(), 5'000'000u);
  AnyValue deepest = AnyValue::from(std::vector<int>{1});
  for (int i = 0; i < 31; ++i) deepest = AnyValue::from(std::vector<AnyValue>{deepest});
  EXPECT_EQ(calculator.call<AnyValue>("echo", deepest), deepest);
}

TEST_F(ConnectionTest, TellsTheEndingsApart) {
  using State = FutureException::State;
  const auto thrown = failureOf([&] { calculator.call<void>("fail", std::string("out of ink")); });
  EXPECT_EQ(thrown, std::pair(State::UserError, std::string("out of ink")));
  const auto odd = failureOf([&] { calculator.call<void>("throwNumber"); });
  EXPECT_EQ(odd, std::pair(State::UserError, std::string("unknown exception")));
  const auto unknown = failureOf([&] { calculator.call<int>("thrice", 1); });
  EXPECT_THAT(unknown.second, HasSubstr("thrice"));
  const auto unfit = failureOf([&] { calculator.call<int>("add", 1, 5'000'000'000); });
  EXPECT_EQ(unfit.first, State::NotSent);
  EXPECT_THAT(unfit.second, HasSubstr("argument 2"));
  const auto tooLarge = failureOf([&] { calculator.call<std::string>("large", 100'000'000); });
  EXPECT_THAT(tooLarge.second, HasSubstr("more than the limit"));
  EXPECT_EQ(calculator.call<int>("add", 1, 1), 2) << "the connection lives on";
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
      server.serve(replaceableId, builder.object());
    }
    const auto asked = rpc::RemoteObject::make(connection, replaceableId);
    server.serve(replaceableId, {});
    asked.wait(guardMs);
    while (!isGone) std::this_thread::yield();
    ASSERT_FALSE(isWrong);
  }
}

TEST_F(ConnectionTest, RunsCallbacksOfWhatIsLostWhereTheyMayWaitForTheNetwork) {
  const std::string closed = RawListener().url();
  net::Handover<bool> seen;
  const auto failsInTime = [&] {
    const auto reached = client.peers->dial(closed, std::chrono::milliseconds(20));
    seen.give(reached.wait(guardMs) == FutureState::FinishedWithError);
  };
  // The first one waits for the second: each call fails by itself.
  const auto first = calculator.async<int>("hold"), second = calculator.async<int>("hold");
  const auto sync = FutureCallbackType::Sync;
  first.connect([&](const Future<int>&) { seen.give(second.hasError(guardMs)); }, sync);
  second.connect([&](const Future<int>&) { failsInTime(); }, sync);
  while (gate->waiting < 2) std::this_thread::yield();
  server.peers->close("power cut");
  client.peers->dial(closed, std::chrono::milliseconds(20))
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
  RawPeer peer = RawPeer::connectTo(server.url().port());
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
  Promise<void> release;
  // Connected before the replies come: else they would run here.
  for (int i = 0; i < 2; ++i)
    calculator.async<void>("promise").connect(
        [blocked = release.future()](const Future<void>&) { blocked.wait(); },
        FutureCallbackType::Sync);
  EventLoop& loop = *getEventLoop();
  const unsigned ceiling = loop.figures().maxThreads;
  for (unsigned i = 0; i < ceiling; ++i)
    loop.post([blocked = release.future()] { blocked.wait(); });
  while (loop.figures().blocked < ceiling) std::this_thread::yield();
  // Nor do callbacks of replies stop the reading: they exceed the ceiling, and that is told.
  house::LogCapture log;
  gate->open.setValue();
  while (loop.figures().blocked < ceiling + 2) std::this_thread::yield();
  EXPECT_TRUE(log.waitForText("block beyond GV_EVENTLOOP_MAX_THREADS"));
  EXPECT_TRUE(rpc::RemoteObject::make(connection, calculatorId).hasValue(guardMs));
  // A reader that was replaced under way is busy, not blocked, until it comes back.
  std::string refusal;
  do refusal = failureOf([&] { calculator.call<int>("add", 1, 1); }).second;
  while (refusal == "no failure");
  EXPECT_THAT(refusal, HasSubstr("GV_EVENTLOOP_MAX_THREADS (" + std::to_string(ceiling)));
  release.setValue();
}

TEST_F(ConnectionTest, RefusesMoreCallsOfOnePeerThanItMayHaveUnderWay) {
  wire::Limits limits;
  limits.acceptedCalls = 10;
  ForeignSession strict("strict", os::machineId(), limits);
  const auto underWay = [&strict] {
    std::vector<rpc::CallRecord> calls;
    for (const auto& each : strict.peers->open()) each->listCalls(calls);
    return calls.size();
  };
  std::size_t expected = 0;
  // However they wait: for what they have promised, for their turn, or for a thread.
  DynamicObjectBuilder promising, serial, queued;
  promising.advertiseMethod("wait", [gate = gate] { return gate->open.future(); });
  serial.setThreadingModel(ObjectThreadingModel::SingleThread);
  for (DynamicObjectBuilder* each : {&serial, &queued})
    each->advertiseMethod("wait", [gate = gate] { gate->open.future().wait(); });
  for (DynamicObjectBuilder* each : {&promising, &serial, &queued}) {
    each->advertiseSignal<>("tick");
    strict.serve(replaceableId, each->object());
    const auto reached = client.dial(strict.url());
    const auto remote = rpc::RemoteObject::make(reached, replaceableId).value(guardMs);
    const SignalLink link = remote.connect("tick", [] {}).value(guardMs);
    const auto how = each == &queued ? MetaCallType::Queued : MetaCallType::Auto;
    for (int i = 0; i < 20; ++i)
      each == &serial ? remote.post("wait") : void(remote.metaCall("wait", {}, how));
    const auto refused = failureOf([&] { remote.call<void>("wait"); });
    EXPECT_THAT(refused.second, HasSubstr("too many calls"));
    EXPECT_EQ(underWay(), expected += limits.acceptedCalls);
    EXPECT_EQ(strict.peers->open().back()->figures().callsRefused, 11u);
    house::LogCapture log;
    remote.disconnect(link).value(guardMs);
    EXPECT_TRUE(rpc::RemoteObject::make(reached, replaceableId).hasValue(guardMs));
    EXPECT_EQ(log.count("was dropped"), 0u) << "a subscription ends all the same";
  }
  gate->open.setValue();
  while (underWay() > 0) std::this_thread::yield();  // or the watchdog ends it
}

TEST_F(ConnectionTest, ServesOthersBetweenManyShortCallbacks) {
  std::atomic<int> left{200};
  for (int i = left; i > 0; --i)
    net::Readers::post([&left] {
      for (const auto begin = std::chrono::steady_clock::now();
           std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(1);) {
      }
      --left;
    });
  EXPECT_EQ(calculator.async<int>("add", 1, 1).value(guardMs), 2);
  EXPECT_GT(left, 0);
  while (left > 0) std::this_thread::yield();
}

// ---- Peers that break the rules

TEST_F(ConnectionTest, LetsARealClientInBesideThoseThatDrip) {
  std::vector<RawPeer> drips;
  for (int i = 0; i < 100; ++i) {
    drips.push_back(RawPeer::connectTo(server.url().port()));
    drips.back().send("G");
  }
  EXPECT_TRUE(ForeignSession("late").dial(server.url())->isOpen());
}

TEST(Connections, ThatDoNotFinishTheHandshakeEnd) {
  wire::Limits impatient;
  impatient.handshakeTime = std::chrono::milliseconds(100);
  const ForeignSession server("server", "machine", impatient);
  RawPeer stranger = RawPeer::connectTo(server.url().port());
  stranger.send("GVM\x01");
  EXPECT_EQ(stranger.receive(), "");
}

}  // namespace
}  // namespace gv
