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

#include "foreignsession.h"
#include "memorypeer.h"
#include "src/rpc/borrowedobjects.h"
#include "src/rpc/connection.h"
#include "src/rpc/frameworkmethods.h"
#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"
#include "streamrecorder.h"
#include "support/live_counter.h"
#include "support/log_capture.h"
#include "support/rawpeer.h"
#include "support/watchdog.h"

namespace gv {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Mark = house::LiveCounter::Mark;

constexpr int guardMs = 20'000;
constexpr unsigned serviceId = 7;

house::LiveCounter counters;  // what tells an object's life from its handles'

void waitUntil(const std::function<bool()>& condition) {
  while (!condition()) std::this_thread::yield();  // the watchdog ends what never comes
}

/// A counter with a property, signals, and a method that takes its like.
Object<Empty> makeCounter(int start) {
  DynamicObjectBuilder builder;
  const auto value = std::make_shared<std::atomic<int>>(start);
  builder.advertiseMethod("next",
                          [value, mark = std::make_shared<Mark>(counters)] { return ++*value; });
  builder.advertiseMethod("sum", [](const Object<Empty>& a, const Object<Empty>& b) {
    return a.call<int>("next") + b.call<int>("next");
  });
  builder.advertiseSignal<int, std::string>("counted");
  builder.advertiseSignal<Object<Empty>>("met");
  builder.advertiseProperty<int>("step", 1);
  return builder.object();
}

/// What the server offers: it makes, keeps, gives and compares objects.
class Shelf {
 public:
  Object<Empty> makeService() {
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
      for (int i = 0; i < count; ++i) {
        DynamicObjectBuilder one;
        one.advertiseMethod("live", [mark = std::make_shared<Mark>(counters)] {});
        all.push_back(one.object());
      }
      return all;
    });
    return builder.object();
  }

  void keep(Object<Empty> object) {
    const std::lock_guard lock(mutex_);
    std::swap(kept_, object);
  }
  Object<Empty> kept() const {
    const std::lock_guard lock(mutex_);
    return kept_;
  }

 private:
  mutable std::mutex mutex_;  // guards kept_
  Object<Empty> kept_;
};

class Objects : public testing::Test {
 protected:
  Objects() {
    server.serve(serviceId, books.makeService());
    connection = client.dial(server.url());
    shelf = rpc::RemoteObject::make(connection, serviceId).value(guardMs);
  }
  ~Objects() override {
    shelf = {};
    books.keep({});
    closeAll("the test has ended");
    waitUntil([] { return counters.live() == 0; });
  }

  void closeAll(const std::string& cause) {
    client.peers->close(cause).wait(guardMs);
    server.peers->close(cause).wait(guardMs);
  }
  /// A counter that the server keeps, as the client sees it.
  Object<Empty> makeKept() const {
    shelf.call<void>("keep", Object<Empty>());
    const auto counter = shelf.call<Object<Empty>>("make", 0);
    shelf.call<void>("keep", counter);
    return counter;
  }

  house::Watchdog watchdog{"a test with peers", std::chrono::seconds(100)};
  Shelf books;
  ForeignSession server{"server"}, client{"client"};
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
  EXPECT_FALSE(Object<rpc::RemoteObject>(books.kept())) << "home again, it is the object itself";
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
    EXPECT_EQ(counters.live(), 1);
    // Whoever lets go of an object right after calling it, or with it, has called it.
    auto pending = shelf.call<Object<Empty>>("make", 1).async<int>("next");
    shelf.post("keep", shelf.call<Object<Empty>>("make", 3));
    EXPECT_EQ(pending.value(guardMs), 2);
    waitUntil([this] { return shelf.call<Object<Empty>>("kept").isValid(); });
    shelf.call<void>("keep", Object<Empty>());
  }
  waitUntil([] { return counters.live() == 0; });
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
  waitUntil([] { return counters.live() <= 1; });  // but for what the server keeps
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
  waitUntil([] { return counters.live() == 1; });
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
  const ForeignSession third("third");
  const auto other = rpc::RemoteObject::make(third.dial(server.url()), serviceId).value(guardMs);
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
}

// ---- Signals and properties

TEST_F(Objects, DeliverSignalsInOrderToAllHandlers) {
  const Object<Empty> counter = makeKept();
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
  for (int i = 0; i < 1000; ++i) books.kept().emit("counted", i, std::to_string(i));
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(first.take(), i);
    ASSERT_EQ(second.take(), std::to_string(i));
  }
  counter.disconnect(link).value(guardMs);
  EXPECT_TRUE(counter.disconnect(link).hasError(guardMs));
  books.kept().emit("counted", 1, std::string("last"));
  EXPECT_EQ(second.take(), "last");
  EXPECT_EQ(first.waiting(), 0u);

  net::Handover<int> steps;
  counter.connect("step", [&](int value) { steps.give(value); }).value(guardMs);
  counter.setProperty("step", 9).value(guardMs);
  EXPECT_EQ(steps.take(), 9);
  net::Handover<Object<Empty>> met;
  counter.connect("met", [&](const Object<Empty>& object) { met.give(object); }).value(guardMs);
  books.kept().emit("met", books.kept());
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
  client.peers->close("power cut").wait(guardMs);
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
  ForeignSession small("small", os::machineId(), limits);
  const auto moody = boost::make_shared<Moody>();
  moody->addSignal("tick", {});
  small.serve(serviceId, Object<Moody>(moody));
  const auto remote = rpc::RemoteObject::make(client.dial(small.url()), serviceId).value(guardMs);
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
}

TEST_F(Objects, EndSubscriptionsWithTheLastHandlerTheServiceAndTheConnection) {
  DynamicObjectBuilder builder;
  builder.advertiseSignal<int>("tick");
  const Object<Empty> own = builder.object();
  server.serve(serviceId, own);
  const auto ticking = rpc::RemoteObject::make(connection, serviceId).value(guardMs);
  net::Handover<int> ticks;
  const auto subscribe = [&](const Object<Empty>& object) {
    return object.connect(
        "tick", [&, mark = std::make_shared<Mark>(counters)](int value) { ticks.give(value); });
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
  own.emit("tick", 1);
  own.emit("tick", 2);
  EXPECT_EQ(ticks.take(), -1);
  EXPECT_EQ(ticks.take(), 1);
  EXPECT_EQ(ticks.take(), 2);
  EXPECT_EQ(counters.live(), 1);

  server.serve(serviceId, {});
  own.emit("tick", 3);
  server.serve(serviceId, own);
  own.emit("tick", 4);
  EXPECT_TRUE(
      subscribe(rpc::RemoteObject::make(connection, serviceId).value(guardMs)).hasValue(guardMs))
      << "a new subscription works, and ends with its object";
  waitUntil([] { return counters.live() == 1; });
  EXPECT_EQ(ticks.waiting(), 0u);
}

TEST_F(Objects, SurviveEmissionsWhileHandlersComeAndGo) {
  const Object<Empty> counter = makeKept();
  std::atomic<bool> isOver{false};
  std::vector<std::thread> emitters;
  for (int i = 0; i < 2; ++i)
    emitters.emplace_back([&] {
      // A call in between, so that the client keeps up.
      for (; !isOver; shelf.call<void>("none")) books.kept().emit("counted", 1, std::string("x"));
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

/// What has one signal, "seen".
Object<Empty> makeSeer() {
  DynamicObjectBuilder builder;
  builder.advertiseSignal<Buffer>("seen");
  return builder.object();
}

/// A peer that has subscribed to the signal "seen" of what a session offers, and reads nothing
/// more.
house::RawPeer makeDeafPeer(const ForeignSession& session, const Object<Empty>& offered) {
  auto peer = house::RawPeer::connectTo(session.url().port());
  const unsigned signal = offered.metaObject().signalNamed("seen").uid();
  rpc::Greeting greeting;
  greeting.sessionId = "deaf";
  std::vector<char> arguments;
  wire::writeArguments(arguments, makeParameters(signal, std::uint64_t{1}), "(ut)");
  wire::FrameHeader subscribe;
  subscribe.type = wire::FrameType::Call;
  subscribe.service = serviceId;
  subscribe.member = rpc::subscribeId;
  peer.send(greetingFrame(wire::FrameType::Hello, greeting) +
            frameText(subscribe, {arguments.data(), arguments.size()}));
  std::string received;  // the welcome, and that it has subscribed
  while (received.size() < 2 * wire::frameHeaderSize ||
         received.compare(received.size() - 1, 1, "\xc0") != 0)
    received += peer.receive(1000);
  return peer;
}

TEST_F(Objects, CutAPeerThatDoesNotReadItsEvents) {
  const Object<Empty> seer = makeSeer();
  server.serve(serviceId, seer);
  auto peer = makeDeafPeer(server, seer);
  const std::string bytes(1u << 20, 'x');
  const Buffer blob(bytes.data(), bytes.size());
  // More than the limit and what the system holds for both ends: the emitter is never held.
  for (int i = 0; i < 64; ++i) seer.emit("seen", blob);
  EXPECT_LT(peer.receiveToTheEnd(), std::size_t{60} << 20);
  EXPECT_EQ(shelf.async<int>("none").errorState(guardMs), FutureException::State::UserError)
      << "the others are served";
}

TEST_F(Objects, KeepAPeerThatReadsALargeReplyBesideItsEvents) {
  DynamicObjectBuilder builder;
  builder.advertiseMethod("large", [] { return std::string(48u << 20, 'x'); });
  builder.advertiseSignal<>("tick");
  const Object<Empty> own = builder.object();
  server.serve(serviceId + 1, own);
  const auto reached = client.dial(server.url());
  const auto object = rpc::RemoteObject::make(reached, serviceId + 1).value(guardMs);
  object.connect("tick", [] {}).value(guardMs);
  std::atomic<bool> isOver{false};
  std::thread emitter([&] {
    // A call in between, so that the client keeps up.
    for (; !isOver; shelf.call<void>("none")) own.emit("tick");
  });
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(object.async<std::string>("large").hasValue(guardMs));
  isOver = true;
  emitter.join();
}

TEST_F(Objects, CutAPeerThatTakesNoneOfItsEventsForSomeTime) {
  wire::Limits limits;
  limits.outputSlow = std::size_t{1} << 30;
  limits.outputPatience = std::chrono::milliseconds(50);
  ForeignSession hasty("hasty", os::machineId(), limits);
  const Object<Empty> seer = makeSeer();
  hasty.serve(serviceId, seer);
  const auto peer = makeDeafPeer(hasty, seer);
  const std::string bytes(1u << 20, 'x');
  house::LogCapture log;
  // What the system does not hold for both ends waits; before that is over no time counts.
  for (int i = 0; i < 32; ++i) seer.emit("seen", Buffer(bytes.data(), bytes.size()));
  while (log.count("cut at 50 ms") == 0) seer.emit("seen", Buffer());
}

TEST_F(Objects, EndWithAPeerWhoseEventsWithoutValuesComeFasterThanTheyAreHandled) {
  wire::Limits limits;
  limits.acceptedBytes = 16u << 10;
  ForeignSession small("small", os::machineId(), limits);
  DynamicObjectBuilder builder;
  builder.advertiseSignal<>("tick");
  const Object<Empty> clock = builder.object();
  server.serve(serviceId, clock);
  const auto reached = small.dial(server.url());
  const auto ticking = rpc::RemoteObject::make(reached, serviceId).value(guardMs);
  Promise<void> release;
  ticking.connect("tick", [held = release.future()] { held.wait(); }).value(guardMs);
  for (int i = 0; i < 1000; ++i) clock.emit("tick");
  waitUntil([&] { return !reached->isOpen(); });
  release.setValue();
}

}  // namespace
}  // namespace gv
