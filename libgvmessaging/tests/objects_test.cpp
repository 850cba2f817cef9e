// Objects that cross a connection, and their signals: two peers over real TCP, and a third between.

#include <gmock/gmock.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gv/eventloop.h>
#include <gvtype/dynamicobjectbuilder.h>

#include "rawpeer.h"
#include "src/rpc/borrowedobjects.h"
#include "src/rpc/connection.h"
#include "src/rpc/frameworkmethods.h"
#include "src/rpc/remoteobject.h"
#include "src/session/peers.h"
#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"
#include "streamrecorder.h"
#include "support/log_capture.h"
#include "support/watchdog.h"

namespace gv {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr int guardMs = 20'000;
constexpr unsigned serviceId = 7;

/// Counts the objects that live, by what they hold.
struct Counted {
  static inline std::atomic<int> alive{0};
  Counted() { ++alive; }
  ~Counted() { --alive; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
};

void waitUntil(const std::function<bool()>& condition) {
  while (!condition()) std::this_thread::yield();  // the watchdog ends what never comes
}

/// A counter with a property, signals, and a method that takes its like.
Object<Empty> makeCounter(int start) {
  DynamicObjectBuilder builder;
  const auto value = std::make_shared<std::atomic<int>>(start);
  const auto counted = std::make_shared<Counted>();
  builder.advertiseMethod("next", [value, counted] { return ++*value; });
  builder.advertiseMethod("sum", [](const Object<Empty>& a, const Object<Empty>& b) {
    return a.call<int>("next") + b.call<int>("next");
  });
  builder.advertiseSignal<int, std::string>("counted");
  builder.advertiseSignal<Object<Empty>>("met");
  builder.advertiseSignal<Buffer>("seen");
  builder.advertiseProperty<int>("step", 1);
  return builder.object();
}

/// What a side offers: it makes, keeps, gives and compares objects.
class Shelf : public rpc::ServiceHost, public std::enable_shared_from_this<Shelf> {
 public:
  explicit Shelf(const std::string& name, const wire::Limits& limits = {}) {
    rpc::Greeting own;
    own.sessionId = name;
    peers = std::make_shared<Peers>(own, limits);
    DynamicObjectBuilder builder;
    builder.advertiseMethod("make", [](int start) { return makeCounter(start); });
    builder.advertiseMethod("makeLater", [](int start) {
      return getEventLoop()->async([start] { return makeCounter(start); });
    });
    builder.advertiseMethod("none", [] { return Object<Empty>(); });
    builder.advertiseMethod("keep", [this](const Object<Empty>& object) { keep(object); });
    builder.advertiseMethod("kept", [this] { return kept(); });
    builder.advertiseMethod("isKept", [this](const Object<Empty>& o) { return o == kept(); });
    builder.advertiseMethod("echo", [](const AnyValue& value) { return value; });
    builder.advertiseMethod("flood", [](int count) {
      return std::vector<Object<Empty>>(static_cast<std::size_t>(count), makeCounter(0));
    });
    builder.advertiseMethod("many", [](int count) {
      std::vector<Object<Empty>> all;
      for (int i = 0; i < count; ++i) all.push_back(makeCounter(i));
      return all;
    });
    service = builder.object();
  }

  Object<Empty> findService(unsigned id) const override {
    return id == serviceId && isOffered ? service : Object<Empty>();
  }

  void keep(Object<Empty> object) {
    const std::lock_guard lock(mutex_);
    std::swap(kept_, object);
  }
  Object<Empty> kept() const {
    const std::lock_guard lock(mutex_);
    return kept_;
  }

  std::shared_ptr<Peers> peers;
  Object<Empty> service;  // constant while calls run
  std::atomic<bool> isOffered{true};

 private:
  mutable std::mutex mutex_;  // guards kept_
  Object<Empty> kept_;
};

std::shared_ptr<Shelf> makeShelf(const std::string& name, const wire::Limits& limits = {}) {
  auto shelf = std::make_shared<Shelf>(name, limits);
  shelf->peers->setOwner(shelf, [](const auto&) {});
  return shelf;
}

class Objects : public testing::Test {
 protected:
  Objects() {
    acceptor = server->peers->listen("tcp://127.0.0.1:0");
    connection = connect(client);
    shelf = rpc::RemoteObject::make(connection, serviceId).value(guardMs);
  }
  ~Objects() override {
    acceptor->close();
    shelf = {};
    server->keep({});
    closeAll("the test has ended");
    waitUntil([] { return Counted::alive == 0; });
  }

  Peers::ConnectionPointer connect(const std::shared_ptr<Shelf>& side) const {
    const Url url = Url::tcp("127.0.0.1", acceptor->boundPort());
    return side->peers->dial(url, std::chrono::seconds(10)).value(guardMs);
  }
  void closeAll(const std::string& cause) {
    client->peers->close(cause).wait(guardMs);
    server->peers->close(cause).wait(guardMs);
  }

  house::Watchdog watchdog{"a test with peers", std::chrono::seconds(100)};
  std::shared_ptr<Shelf> server = makeShelf("server");
  std::shared_ptr<Shelf> client = makeShelf("client");
  std::shared_ptr<rpc::Acceptor> acceptor;
  Peers::ConnectionPointer connection;
  Object<Empty> shelf;  // the server's, seen by the client
};

TEST_F(Objects, CrossAsResultsAndArgumentsAndKeepTheirIdentity) {
  const auto counter = shelf.call<Object<Empty>>("make", 10);
  EXPECT_EQ(counter.call<int>("next"), 11);
  EXPECT_EQ(shelf.call<Object<Empty>>("makeLater", 5).call<int>("next"), 6);
  EXPECT_FALSE(shelf.call<Object<Empty>>("none"));
  // Of either side, side by side in one call.
  const Object<Empty> own = makeCounter(100);
  EXPECT_EQ(counter.call<int>("sum", counter, own), 12 + 101);

  shelf.call<void>("keep", counter);
  EXPECT_FALSE(Object<rpc::RemoteObject>(server->kept())) << "home again, it is the object itself";
  EXPECT_TRUE(shelf.call<bool>("isKept", counter));
  EXPECT_EQ(shelf.call<Object<Empty>>("kept"), counter) << "sent twice, it is one object";
  shelf.call<void>("keep", own);
  EXPECT_EQ(shelf.call<Object<Empty>>("kept"), own);
  // A service comes back as an object that is lent.
  EXPECT_TRUE(shelf.call<AnyValue>("echo", shelf).to<Object<Empty>>().call<bool>("isKept", own));

  std::map<std::string, std::vector<Object<Empty>>> nested = {{"a", {own, {}, counter}}};
  EXPECT_EQ(shelf.call<AnyValue>("echo", nested).to<decltype(nested)>(), nested);
  auto pair = std::pair(std::optional<Object<Empty>>(counter), AnyValue::from(own));
  EXPECT_EQ(shelf.call<AnyValue>("echo", pair).to<decltype(pair)>(), pair);
}

TEST_F(Objects, LiveUntilTheLastHandleOrTheConnectionGoes) {
  {
    const auto counter = shelf.call<Object<Empty>>("make", 1);
    EXPECT_EQ(Counted::alive, 1);
    // Whoever lets go of an object right after calling it, or with it, has called it.
    auto pending = shelf.call<Object<Empty>>("make", 1).async<int>("next");
    shelf.post("keep", shelf.call<Object<Empty>>("make", 3));
    EXPECT_EQ(pending.value(guardMs), 2);
    waitUntil([this] { return shelf.call<Object<Empty>>("kept").isValid(); });
    shelf.call<void>("keep", Object<Empty>());
  }
  waitUntil([] { return Counted::alive == 0; });
  // Releases cross new sendings of the same object.
  shelf.call<void>("keep", makeCounter(0));
  std::vector<std::thread> callers;
  for (int i = 0; i < 4; ++i)
    callers.emplace_back([this] {
      for (int round = 0; round < 100; ++round)
        ASSERT_TRUE(shelf.call<bool>("isKept", shelf.call<Object<Empty>>("kept")));
    });
  for (auto& caller : callers) caller.join();

  const auto counter = shelf.call<Object<Empty>>("make", 1);
  const auto waiting = shelf.call<Object<Empty>>("kept");
  closeAll("power cut");
  waitUntil([] { return Counted::alive <= 1; });  // but for what the server keeps
  EXPECT_EQ(counter.async<int>("next").errorState(guardMs), FutureException::State::NotSent);
}

TEST_F(Objects, AreOneAlsoWhereTwoThreadsReceiveTheirNumberAtOnce) {
  rpc::BorrowedObjects borrowed(1);
  const auto make = [this] { return rpc::RemoteObject::make(connection, {0, 77}, MetaObject()); };
  Object<Empty> others;
  const Object<Empty> object = borrowed.receive(77, [&] {
    others = borrowed.receive(77, make);  // meanwhile
    return make();
  });
  EXPECT_EQ(object, others);
  EXPECT_EQ(borrowed.forget(77, Object<rpc::RemoteObject>(object).get()), 2u);
}

TEST_F(Objects, LendNothingByWhatIsNotReadOrNotSent) {
  const Object<Empty> own = makeCounter(0);
  MetaMethodBuilder unknown;
  unknown.setUid(4711);
  unknown.setParametersSignature("(o)");
  const MetaMethod none = unknown.metaMethod();
  const auto called = connection->call(serviceId, none, makeParameters(own), MetaCallType::Auto);
  EXPECT_THAT(called.error(guardMs), HasSubstr("4711"));
  EXPECT_TRUE(shelf.async<void>("make", own).hasError(guardMs)) << "nothing was sent";
  EXPECT_THAT(shelf.async<AnyValue>("many", 10'001).error(guardMs), HasSubstr("10000 objects"));
  EXPECT_EQ(shelf.call<std::vector<Object<Empty>>>("flood", 20'000).size(), 20'000u);
  EXPECT_EQ(shelf.call<std::vector<Object<Empty>>>("many", 1'000).size(), 1'000u);
  waitUntil([] { return Counted::alive == 1; });
  EXPECT_THROW(shelf.call<void>("keep", 5), FutureException);
}

TEST_F(Objects, IgnoreReleasesOfWhatWasNotLent) {
  shelf.call<void>("keep", Object<Empty>());
  const auto counter = shelf.call<Object<Empty>>("make", 0);
  for (const unsigned number : {0u, 1u, 2u, 77u})
    connection->post({0, number}, rpc::releaseMethod(), makeParameters(1'000'000u));
  EXPECT_EQ(counter.call<int>("next"), 1);
  for (int twice = 0; twice < 2; ++twice)
    connection->post({0, 1}, rpc::releaseMethod(), makeParameters(1u));
  EXPECT_THAT(counter.async<int>("next").error(guardMs), HasSubstr("no lent object"));
}

TEST_F(Objects, ArePassedOnToAThirdProcess) {
  const auto third = makeShelf("third");
  const auto other = rpc::RemoteObject::make(connect(third), serviceId).value(guardMs);
  {
    const Object<Empty> own = makeCounter(1);
    shelf.call<void>("keep", own);  // the client's, lent to the server, who passes it on
    const auto passed = other.call<Object<Empty>>("kept");
    EXPECT_EQ(passed.call<int>("next"), 2);
    passed.setProperty("step", 5).value(guardMs);
    EXPECT_EQ(own.property<int>("step").value(guardMs), 5);
    net::Handover<int> counts;
    passed.connect("counted", [&](int count, const std::string&) { counts.give(count); })
        .value(guardMs);
    own.emit("counted", 8, std::string());
    EXPECT_EQ(counts.take(), 8);
  }
  third->peers->close("done").wait(guardMs);
}

TEST(ObjectsOnTheWire, HaveTheDocumentedBytes) {
  struct Passage : wire::OutgoingObjects, wire::IncomingObjects {
    wire::PassedObject pass(const Object<Empty>&) override { return passed; }
    Object<Empty> receive(const wire::PassedObject& received) override {
      EXPECT_EQ(received.isReceivers, passed.isReceivers);
      EXPECT_EQ(received.number, passed.number);
      return object;
    }
    wire::PassedObject passed;
    const Object<Empty> object = DynamicObjectBuilder().object();
  } passage;
  for (const auto& [isReceivers, number, bytes] :
       {std::tuple(false, 5u, std::string("\xc7\x07\x01\x92\x05\x94\xa0\x90\x90\x90")),
        std::tuple(true, 3u, std::string("\xc7\x03\x02\x92\x00\x03", 6))}) {
    passage.passed = {isReceivers, 0, number, {}};
    wire::Output out(&passage);
    wire::writeValue(out, AnyReference::from(passage.object), "o");
    std::vector<char> written;
    out.copyTo(written);
    EXPECT_EQ(std::string(written.begin(), written.end()), bytes);
    Object<Empty> back;
    wire::readValue(written, AnyReference::from(back), wire::Limits(), &passage);
    EXPECT_EQ(back, passage.object);
    EXPECT_THROW(wire::readValue(written, AnyReference::from(back), wire::Limits()),
                 wire::PayloadError);
  }
}

TEST(LargeValues, AreSentFromWhereTheyStandAndConvertedOnesCopied) {
  const std::string large(wire::Output::leastBorrowed, 'l');
  const std::string small(large.size() - 1, 's');
  const AnyValue dynamic = AnyValue::from(Buffer(large.data(), large.size()));
  const std::optional<std::string> optional = large;  // converts to a string
  wire::Output out;
  wire::writeArguments(
      out,
      std::vector<AnyReference>{AnyReference::from(large), AnyReference::from(dynamic),
                                AnyReference::from(small), AnyReference::from(optional)},
      "(svss)");
  const auto pieces = out.pieces();
  ASSERT_EQ(pieces.size(), 5u);
  EXPECT_EQ(pieces[1].data(), large.data());
  EXPECT_EQ(pieces[3].data(), dynamic.asReference().as<Buffer>()->data());
  std::vector<char> copied;
  out.copyTo(copied);
  EXPECT_EQ(copied.size(), out.size());
  std::string first, third, fourth;
  AnyValue second;
  wire::readArguments(copied,
                      {AnyReference::from(first), AnyReference::from(second),
                       AnyReference::from(third), AnyReference::from(fourth)},
                      nullptr, wire::Limits());
  EXPECT_EQ(std::tie(first, second, third, fourth), std::tie(large, dynamic, small, large));
}

// ---- Signals and properties

TEST_F(Objects, DeliverSignalsInOrderToAllHandlers) {
  shelf.call<void>("keep", Object<Empty>());
  const auto counter = shelf.call<Object<Empty>>("make", 0);
  shelf.call<void>("keep", counter);
  net::Handover<int> first;
  net::Handover<std::string> second;
  const auto link =
      counter.connect("counted", [&](int value, const std::string&) { first.give(value); })
          .value(guardMs);
  counter
      .connect(
          "counted", [&](double, const std::string& text) { second.give(text); },
          MetaCallType::Queued)
      .value(guardMs);
  for (int i = 0; i < 1000; ++i) server->kept().emit("counted", i, std::to_string(i));
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(first.take(), i);
    ASSERT_EQ(second.take(), std::to_string(i));
  }
  counter.disconnect(link).value(guardMs);
  EXPECT_TRUE(counter.disconnect(link).hasError(guardMs));
  server->kept().emit("counted", 1, std::string("last"));
  EXPECT_EQ(second.take(), "last");
  EXPECT_EQ(first.waiting(), 0u);

  net::Handover<int> steps;
  counter.connect("step", [&](int value) { steps.give(value); }).value(guardMs);
  counter.setProperty("step", 9).value(guardMs);
  EXPECT_EQ(steps.take(), 9);
  net::Handover<Object<Empty>> met;
  counter.connect("met", [&](const Object<Empty>& object) { met.give(object); }).value(guardMs);
  server->kept().emit("met", server->kept());
  EXPECT_EQ(met.take(), counter);
}

TEST_F(Objects, RefuseHandlersAndValuesWithTheTextsOfLocalObjects) {
  const Object<Empty> local = makeCounter(0);
  const auto remote = shelf.call<Object<Empty>>("make", 0);
  const auto compare = [&](const auto& failure) {
    EXPECT_EQ(failure(remote).error(guardMs), failure(local).error(guardMs));
  };
  compare([](const auto& object) { return object.connect("counted", [](int) {}); });
  compare([](const auto& object) {
    return object.connect("counted", [](const std::string&, const std::string&) {});
  });
  compare([](const auto& object) { return object.connect("conted", [] {}); });
  compare([](const auto& object) { return object.disconnect(0); });
  compare([](const auto& object) { return object.setProperty("step", std::string("x")); });
  compare([](const auto& object) { return object.template property<int>("stop"); });
  EXPECT_THROW(remote.emit("counted", 1, std::string()), std::runtime_error);
  client->peers->close("power cut").wait(guardMs);
  EXPECT_THAT(remote.connect("met", [](const Object<Empty>&) {}).error(guardMs),
              HasSubstr("power cut"));
}

TEST_F(Objects, CanBeListenedToRightAfterARefusal) {
  struct Moody : DynamicObject {
    Future<SignalLink> metaConnect(Object<Empty> context, unsigned id, AnyFunction handler,
                                   MetaCallType type) override {
      if (refuses) throw std::runtime_error("not now");
      return DynamicObject::metaConnect(context, id, std::move(handler), type);
    }
    std::atomic<bool> refuses{true};
  };
  wire::Limits limits;
  limits.subscriptions = 1;
  const auto small = makeShelf("small", limits);
  const auto moody = boost::make_shared<Moody>();
  moody->addSignal("tick", {});
  small->service = Object<Moody>(moody);
  const auto listening = small->peers->listen("tcp://127.0.0.1:0");
  const Url url = Url::tcp("127.0.0.1", listening->boundPort());
  const auto reached = client->peers->dial(url, std::chrono::seconds(10)).value(guardMs);
  const auto remote = rpc::RemoteObject::make(reached, serviceId).value(guardMs);
  net::Handover<Future<SignalLink>> second;
  const auto first = remote.connect("tick", [] {});
  first.connect(
      [&](const auto&) {
        moody->refuses = false;
        second.give(remote.connect("tick", [] {}));
      },
      FutureCallbackType::Sync);
  EXPECT_THAT(first.error(guardMs), HasSubstr("not now"));
  EXPECT_TRUE(second.take().hasValue(guardMs));
  listening->close();
  small->peers->close("done").wait(guardMs);
}

TEST_F(Objects, EndSubscriptionsWithTheLastHandlerTheServiceAndTheConnection) {
  DynamicObjectBuilder builder;
  builder.advertiseSignal<int>("tick");
  server->service = builder.object();
  const auto ticking = rpc::RemoteObject::make(connection, serviceId).value(guardMs);
  net::Handover<int> ticks;
  const auto subscribe = [&](const Object<Empty>& object) {
    return object.connect(
        "tick", [&, counted = std::make_shared<Counted>()](int value) { ticks.give(value); });
  };
  // In its own callback a handler may go, with all that it holds.
  auto itself = std::make_shared<SignalLink>();
  Promise<void> isSet;
  *itself = ticking
                .connect("tick",
                         [&, itself, ready = isSet.future(),
                          weak = WeakObject<Empty>(ticking)](int value) {
                           ready.wait();
                           weak.lock().disconnect(*itself);
                           ticks.give(-value);
                         })
                .value(guardMs);
  isSet.setValue();
  subscribe(ticking).value(guardMs);
  server->service.emit("tick", 1);
  server->service.emit("tick", 2);
  EXPECT_EQ(ticks.take(), -1);
  EXPECT_EQ(ticks.take(), 1);
  EXPECT_EQ(ticks.take(), 2);
  EXPECT_EQ(Counted::alive, 1);

  server->isOffered = false;
  server->service.emit("tick", 3);
  server->isOffered = true;
  server->service.emit("tick", 4);
  EXPECT_TRUE(
      subscribe(rpc::RemoteObject::make(connection, serviceId).value(guardMs)).hasValue(guardMs))
      << "a new subscription works, and ends with its object";
  waitUntil([] { return Counted::alive == 1; });
  EXPECT_EQ(ticks.waiting(), 0u);
}

TEST_F(Objects, SurviveEmissionsWhileHandlersComeAndGo) {
  const auto counter = shelf.call<Object<Empty>>("make", 0);
  shelf.call<void>("keep", counter);
  std::atomic<bool> isOver{false};
  std::vector<std::thread> emitters;
  for (int i = 0; i < 2; ++i)
    emitters.emplace_back([&] {
      // A call in between, so that the client keeps up.
      for (; !isOver; shelf.call<void>("none")) server->kept().emit("counted", 1, std::string("x"));
    });
  for (int round = 0; round < 100; ++round) {
    const auto isGone = std::make_shared<std::atomic<bool>>(false);
    const auto ran = std::make_shared<std::atomic<int>>(0);
    const auto link = counter
                          .connect("counted",
                                   [isGone, ran](int, const std::string&) {
                                     EXPECT_FALSE(*isGone);
                                     ++*ran;
                                   })
                          .value(guardMs);
    waitUntil([&] { return *ran > 0; });
    counter.disconnect(link).value(guardMs);
    *isGone = true;
  }
  isOver = true;
  for (auto& emitter : emitters) emitter.join();
}

/// A peer that has subscribed to the signal "seen" of what a side offers, and reads nothing more.
RawPeer makeDeafPeer(std::uint16_t port, Shelf& side) {
  RawPeer peer = RawPeer::connectTo(port);
  const auto send = [&](wire::FrameType type, unsigned member, const std::vector<char>& payload) {
    wire::FrameHeader header;
    header.type = type;
    header.service = type == wire::FrameType::Hello ? 0 : serviceId;
    header.member = member;
    header.payloadSize = static_cast<std::uint32_t>(payload.size());
    std::array<char, wire::frameHeaderSize> head;
    wire::encodeHeader(header, head);
    peer.send(std::string(head.data(), head.size()) + std::string(payload.data(), payload.size()));
  };
  DynamicObjectBuilder builder;
  const unsigned signal = builder.advertiseSignal<Buffer>("seen");
  side.service = builder.object();
  rpc::Greeting greeting;
  greeting.sessionId = "deaf";
  send(wire::FrameType::Hello, 0, rpc::encodeGreeting(greeting));
  std::vector<char> arguments;
  wire::writeArguments(arguments, makeParameters(signal, std::uint64_t{1}), "(ut)");
  send(wire::FrameType::Call, rpc::subscribeId, arguments);
  std::string received;  // the welcome, and that it has subscribed
  while (received.size() < 2 * wire::frameHeaderSize ||
         received.compare(received.size() - 1, 1, "\xc0") != 0)
    received += peer.receive(1000);
  return peer;
}

TEST_F(Objects, CutAPeerThatDoesNotReadItsEvents) {
  RawPeer peer = makeDeafPeer(acceptor->boundPort(), *server);
  const std::string bytes(1u << 20, 'x');
  const Buffer blob(bytes.data(), bytes.size());
  // More than the limit and what the system holds for both ends: the emitter is never held.
  for (int i = 0; i < 64; ++i) server->service.emit("seen", blob);
  std::size_t total = 0;
  try {
    for (std::string more; !(more = peer.receive(1u << 20)).empty();) total += more.size();
  } catch (const std::system_error&) {  // a reset is an end, too
  }
  EXPECT_LT(total, std::size_t{60} << 20);
  EXPECT_EQ(shelf.async<int>("none").errorState(guardMs), FutureException::State::UserError)
      << "the others are served";
}

TEST_F(Objects, CutAPeerThatTakesNoneOfItsEventsForSomeTime) {
  wire::Limits limits;
  limits.outputSlow = std::size_t{1} << 30;
  limits.outputPatience = std::chrono::milliseconds(50);
  const auto hasty = makeShelf("hasty", limits);
  const auto listening = hasty->peers->listen("tcp://127.0.0.1:0");
  const RawPeer peer = makeDeafPeer(listening->boundPort(), *hasty);
  const std::string bytes(1u << 20, 'x');
  house::LogCapture log;
  // What the system does not hold for both ends waits; before that is over no time counts.
  for (int i = 0; i < 32; ++i) hasty->service.emit("seen", Buffer(bytes.data(), bytes.size()));
  while (log.count("cut at 50 ms") == 0) hasty->service.emit("seen", Buffer());
  listening->close();
  hasty->peers->close("done").wait(guardMs);
}

TEST_F(Objects, EndWithAPeerWhoseEventsWithoutValuesComeFasterThanTheyAreHandled) {
  wire::Limits limits;
  limits.acceptedBytes = 16u << 10;
  const auto small = makeShelf("small", limits);
  DynamicObjectBuilder builder;
  builder.advertiseSignal<>("tick");
  server->service = builder.object();
  const auto reached = connect(small);
  const auto ticking = rpc::RemoteObject::make(reached, serviceId).value(guardMs);
  Promise<void> release;
  ticking.connect("tick", [held = release.future()] { held.wait(); }).value(guardMs);
  for (int i = 0; i < 1000; ++i) server->service.emit("tick");
  waitUntil([&] { return !reached->isOpen(); });
  release.setValue();
  small->peers->close("done").wait(guardMs);
}

}  // namespace
}  // namespace gv
