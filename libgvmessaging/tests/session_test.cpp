// Sessions over real TCP connections, within one process.

#include <gvmessaging/session.h>

#include <gmock/gmock.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gvtype/dynamicobjectbuilder.h>

#include "foreignsession.h"
#include "src/session/sessionsettings.h"
#include "support/rawpeer.h"
#include "support/rounds.h"
#include "support/watchdog.h"

namespace gv {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr int guardMs = 20'000;

Object<Empty> makeObject() {
  DynamicObjectBuilder builder;
  builder.advertiseMethod("one", [] { return 1; });
  return builder.object();
}

std::vector<std::string> namesOf(const std::vector<ServiceInfo>& infos) {
  std::vector<std::string> names;
  for (const ServiceInfo& info : infos) names.push_back(info.name());
  return names;
}

boost::shared_ptr<Session> makeMaster(const Url& url = "tcp://127.0.0.1:0") {
  auto master = boost::make_shared<Session>();
  master->listenStandalone(url).value(guardMs);
  return master;
}

/// A master and a session that is connected to it and listens.
class SessionTest : public testing::Test {
 protected:
  SessionTest() {
    client->connect(master->url().str()).value(guardMs);
    client->listen("tcp://127.0.0.1:0").value(guardMs);
  }
  ~SessionTest() override {
    client->close().wait(guardMs);
    master->close().wait(guardMs);
  }

  Object<Empty> onlyServiceSeenBy(ForeignSession& foreign) const {
    foreign.join(master->url());
    const ServiceInfo info = master->services().value(guardMs)[1];
    const auto connection = foreign.peers->reach(info).value(guardMs);
    return rpc::RemoteObject::make(connection, info.serviceId()).value(guardMs);
  }

  house::Watchdog watchdog{"a test with peers", std::chrono::seconds(100)};
  boost::shared_ptr<Session> master = makeMaster();
  boost::shared_ptr<Session> client = boost::make_shared<Session>();
};

TEST_F(SessionTest, OffersAndFindsServices) {
  const Object<Empty> object = makeObject();
  const unsigned id = client->registerService("Counter", object).value(guardMs);
  EXPECT_GT(id, 1u);
  EXPECT_EQ(master->service("Counter", "local").value(0), object) << "without the network";
  EXPECT_EQ(master->service("Nobody", "local").errorState(0), FutureException::State::UserError);
  EXPECT_THAT(namesOf(master->services().value(guardMs)),
              ElementsAre("ServiceDirectory", "Counter"));
  EXPECT_THAT(namesOf(master->services(Session::ServiceLocality::Local).value(0)),
              ElementsAre("Counter"));
  EXPECT_THAT(namesOf(master->services(Session::ServiceLocality::Remote).value(guardMs)),
              ElementsAre("ServiceDirectory"));
  const ServiceInfo info = master->services().value(guardMs)[1];
  EXPECT_EQ(info.serviceId(), id);
  EXPECT_EQ(info.endpoints(), client->endpoints());

  client->unregisterService(id).value(guardMs);
  EXPECT_THAT(master->service("Counter").error(guardMs), HasSubstr("Counter"));
  EXPECT_EQ(master->service("Counter").errorState(guardMs), FutureException::State::UserError);
  EXPECT_THAT(client->unregisterService(id).error(guardMs), HasSubstr(std::to_string(id)));
}

TEST_F(SessionTest, RefusesNamesThatAreTakenOrWrong) {
  client->registerService("Counter", makeObject()).value(guardMs);
  EXPECT_THAT(master->registerService("Counter", makeObject()).error(guardMs),
              HasSubstr("'Counter' is registered already"));
  EXPECT_THAT(client->registerService("ServiceDirectory", makeObject()).error(guardMs),
              HasSubstr("registered already"));
  EXPECT_THAT(client->registerService("a/b", makeObject()).error(guardMs), HasSubstr("'a/b'"));
  EXPECT_THAT(client->registerService("Null", {}).error(guardMs), HasSubstr("null"));
}

TEST_F(SessionTest, LetsOnlyTheOwnerWithdraw) {
  const unsigned id = client->registerService("Counter", makeObject()).value(guardMs);
  const Object<Empty> directory = master->service("ServiceDirectory").value(guardMs);
  EXPECT_THROW(directory.call<void>("unregisterService", id), FutureException);
  EXPECT_THROW(directory.async<void>("unregisterService", id).value(guardMs), FutureException);
  EXPECT_THROW(directory.call<void>("unregisterService", 1u), FutureException);
  EXPECT_EQ(master->service("Counter").value(guardMs).call<int>("one"), 1);
}

TEST_F(SessionTest, TellsItsFiguresWhileCallsComeAndGo) {
  ForeignSession foreign("foreign");
  foreign.join(master->url());
  const Promise<void> gate;
  DynamicObjectBuilder held;
  held.advertiseMethod("wait", [gate] { return gate.future(); });
  foreign.offer("Held", held.object());
  const auto waiting = master->service("Held").value(guardMs).async<void>("wait");
  const unsigned id = master->registerService("Counter", makeObject()).value(guardMs);
  const Object<Empty> counter = rpc::RemoteObject::make(foreign.connection, id).value(guardMs);

  std::atomic<bool> isOver{false};
  std::vector<std::thread> callers;
  for (int i = 0; i < 2; ++i)
    callers.emplace_back([&] {
      while (!isOver) counter.call<int>("one");
    });
  for (int i = 0; i < house::rounds(1000); ++i) {
    const auto figures =
        counter.share()->call<Figures>(static_cast<unsigned>(BuiltinMethod::Figures));
    std::vector<std::string> made;
    for (const CallFigures& call : figures.calls) {
      const std::string name = call.serviceName + "." + call.memberName;
      if (!call.isServed || name != "Counter.one") made.push_back(name);
    }
    EXPECT_THAT(made, ElementsAre("Held.wait"));
    EXPECT_EQ(figures.callCount, figures.calls.size());
  }
  isOver = true;
  for (std::thread& caller : callers) caller.join();
  gate.setValue();
  waiting.value(guardMs);
  while (counter.call<Figures>("figures").callCount > 0) std::this_thread::yield();
}

TEST_F(SessionTest, DropsARemoteObjectWhenItsServiceHasGone) {
  ForeignSession foreign("foreign");
  foreign.join(master->url());
  const unsigned first = foreign.offer("Far", makeObject());
  WeakObject<Empty> object = master->service("Far").value(guardMs);
  EXPECT_EQ(object.lock().call<int>("one"), 1);
  foreign.directory.call<void>("unregisterService", first);
  while (object.lock()) std::this_thread::yield();
  EXPECT_TRUE(master->service("Far").hasError(guardMs));

  EXPECT_GT(foreign.offer("Far", makeObject()), first);
  object = master->service("Far").value(guardMs);
  foreign.connection->close("lost");
  while (object.lock()) std::this_thread::yield();
  EXPECT_THAT(namesOf(master->services().value(guardMs)), ElementsAre("ServiceDirectory"));
}

TEST_F(SessionTest, FindsAServiceFromTheNoticeOfItsAdditionOn) {
  const Object<Empty> directory = master->service("ServiceDirectory").value(guardMs);
  for (int round = 0; round < 300; ++round) {
    // As one waits for a service: watch, look, and only then wait.
    const std::string awaited = "Awaited " + std::to_string(round);
    const Promise<void> added;
    const auto watch = [&](unsigned, const std::string& name) {
      if (name == awaited) added.setValue();
    };
    const SignalLink link = directory.connect("serviceAdded", watch).value(guardMs);
    const auto registered = client->registerService(awaited, makeObject());
    if (master->service(awaited).hasError(guardMs)) {
      added.future().value(guardMs);
      EXPECT_EQ(master->service(awaited).value(guardMs).call<int>("one"), 1);
    }
    client->unregisterService(registered.value(guardMs)).value(guardMs);
    directory.disconnect(link).value(guardMs);
  }
}

/// How a session may be closed from inside what it runs itself.
TEST_F(SessionTest, MayBeClosedInItsOwnMethodsAndCallbacks) {
  DynamicObjectBuilder builder;
  builder.advertiseMethod("close", [this] { client->close(); });
  const Promise<void> never;
  builder.advertiseMethod("wait", [never] { return never.future(); });
  client->registerService("Closing", builder.object()).value(guardMs);
  ForeignSession foreign("foreign");
  const Object<Empty> object = onlyServiceSeenBy(foreign);
  const Future<void> pending = object.async<void>("wait");
  object.async<void>("close").wait(guardMs);
  EXPECT_EQ(pending.errorState(guardMs), FutureException::State::ConnectionLost);
  EXPECT_EQ(client->close().wait(guardMs), FutureState::FinishedWithValue);

  const Promise<void> closed;
  master->services().connect(
      [&](const auto&) {
        master->close().wait(guardMs);
        closed.setValue();
      },
      FutureCallbackType::Async);
  closed.future().value(guardMs);
  EXPECT_FALSE(master->isConnected());
}

TEST_F(SessionTest, StartsNoBodyOnceItsServiceIsUnregistered) {
  std::atomic<bool> isWithdrawn{false};
  std::atomic<int> late{0}, early{0};
  DynamicObjectBuilder builder;
  builder.setThreadingModel(ObjectThreadingModel::SingleThread);
  builder.advertiseMethod("run", [&] { ++(isWithdrawn ? late : early); });
  const Promise<void> began, goOn;
  builder.advertiseMethod("block", [began, goOn] {
    began.setValue();
    goOn.future().wait(guardMs);
  });
  const unsigned id = client->registerService("Gone", builder.object()).value(guardMs);
  ForeignSession foreign("foreign");
  const Object<Empty> object = onlyServiceSeenBy(foreign);
  std::vector<Future<void>> calls;
  calls.push_back(object.async<void>("block"));
  began.future().value(guardMs);
  for (int i = 0; i < 20; ++i) calls.push_back(object.async<void>("run"));
  client->unregisterService(id).value(guardMs);
  isWithdrawn = true;
  goOn.setValue();
  EXPECT_EQ(calls[0].wait(guardMs), FutureState::FinishedWithValue) << "it was running";
  for (std::size_t i = 1; i < calls.size(); ++i)
    EXPECT_THAT(calls[i].error(guardMs), HasSubstr("no service with id " + std::to_string(id)));
  EXPECT_EQ(late + early, 0);
}

TEST_F(SessionTest, KnowsWhetherItIsConnected) {
  EXPECT_TRUE(master->isConnected());
  EXPECT_TRUE(client->isConnected());
  EXPECT_EQ(client->url(), master->url());
  master->close().value(guardMs);
  while (client->isConnected()) std::this_thread::yield();
  EXPECT_EQ(client->registerService("X", makeObject()).errorState(guardMs),
            FutureException::State::NotSent);
  EXPECT_THROW(master->url(), std::runtime_error);
  client->close().value(guardMs);
  EXPECT_TRUE(client->connect("tcp://127.0.0.1:1").hasError(guardMs)) << "closed for good";
}

TEST(Sessions, FailClearlyWhereTheyCannotListenOrConnect) {
  const auto master = boost::make_shared<Session>();
  EXPECT_THROW(master->url(), std::runtime_error);
  EXPECT_TRUE(master->endpoints().empty());
  master->listenStandalone("tcp://127.0.0.1:0").value(guardMs);
  const auto second = boost::make_shared<Session>();
  const std::string inUse = second->listenStandalone(master->url()).error(guardMs);
  EXPECT_THAT(inUse, HasSubstr(std::to_string(master->url().port())));
  EXPECT_FALSE(second->isConnected());
  EXPECT_THAT(second->connect("tcp://127.0.0.1:1").error(guardMs), HasSubstr("127.0.0.1:1"));
  EXPECT_THAT(second->connect("nonsense").error(guardMs), HasSubstr("nonsense"));
  EXPECT_THAT(second->connect("tcp://127.0.0.1:0").error(guardMs), HasSubstr("127.0.0.1:0"));
  // After refusals the session may still join a network.
  second->connect(master->url().str()).value(guardMs);
  EXPECT_TRUE(second->isConnected());
  EXPECT_TRUE(second->connect(master->url().str()).hasError(guardMs)) << "once only";
}

TEST(Sessions, OfDifferentMastersAreDifferentNetworks) {
  const auto a = makeMaster();
  const auto b = makeMaster();
  a->registerService("Counter", makeObject()).value(guardMs);
  EXPECT_TRUE(b->service("Counter", "local").hasError(0));
  EXPECT_TRUE(b->service("Counter").hasError(guardMs));
  b->registerService("Counter", makeObject()).value(guardMs);
}

TEST(Sessions, FreeTheirPortAndTheirObjectsWhenTheyClose) {
  std::uint16_t port = 0;
  WeakObject<Empty> weak;
  for (int round = 0; round < 20; ++round) {
    const auto session = makeMaster(Url::tcp("127.0.0.1", port));
    port = session->url().port();
    const Object<Empty> object = makeObject();
    weak = object;
    session->registerService("Counter", object).value(guardMs);
    session->close().value(guardMs);
    session->close().value(guardMs);
    EXPECT_TRUE(weak.lock());
  }
  EXPECT_FALSE(weak.lock());
}

std::ptrdiff_t openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(Sessions, LeaveNothingOpenWhenTheyCannotJoin) {
  const ForeignSession noMaster("no master");
  const auto session = boost::make_shared<Session>();
  session->connect(noMaster.url().str()).wait(guardMs);
  const std::ptrdiff_t before = openDescriptors();
  for (int round = 0; round < 30; ++round)
    EXPECT_THAT(session->connect(noMaster.url().str()).error(guardMs), HasSubstr("id 1"));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (openDescriptors() > before + 4 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::yield();
  EXPECT_LE(openDescriptors(), before + 4);
}

TEST(Sessions, EndWhatIsPendingWhenTheyAreDropped) {
  const house::RawListener deaf;  // connects, by the system's queue, and never speaks
  auto session = boost::make_shared<Session>();
  const Future<void> joining = session->connect(deaf.url());
  const auto start = std::chrono::steady_clock::now();
  session.reset();
  EXPECT_THAT(joining.error(guardMs), HasSubstr("the session was closed"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(Sessions, MayBeDroppedWhileTheyConnectAndWhileTheyClose) {
  const auto master = makeMaster();
  for (int round = 0; round < 100; ++round) {
    auto client = boost::make_shared<Session>();
    const Future<void> joining = client->connect(master->url().str());
    if (round % 2 == 0) {
      client.reset();
      EXPECT_NE(joining.wait(guardMs), FutureState::Running);
      continue;
    }
    joining.value(guardMs);
    const Future<void> closing = client->close();
    client.reset();
    EXPECT_EQ(closing.wait(guardMs), FutureState::FinishedWithValue);
  }
}

TEST(Sessions, FindNothingOfAMasterThatWasRestarted) {
  const auto former = makeMaster();
  const Url url = former->url();
  ForeignSession foreign("foreign");
  foreign.join(url);
  foreign.offer("Old", makeObject());
  former->close().value(guardMs);

  const auto master = makeMaster(url);
  EXPECT_THROW(foreign.directory.call<void>("services"), FutureException);
  ForeignSession anew("anew");
  anew.join(url);
  anew.offer("New", makeObject());
  EXPECT_THAT(namesOf(master->services().value(guardMs)), ElementsAre("ServiceDirectory", "New"));
  EXPECT_EQ(master->service("New").value(guardMs).call<int>("one"), 1);
}

TEST(Sessions, GiveUpOnADirectoryThatDoesNotAnswer) {
  SessionSettings settings;
  settings.connectTime = std::chrono::milliseconds(200);
  const auto session = settings.makeSession();
  const house::RawListener deaf;
  const Future<void> joining = session->connect(deaf.url());
  session->listen("tcp://127.0.0.1:0").value(guardMs);
  EXPECT_TRUE(joining.isRunning());
  EXPECT_EQ(session->endpoints().size(), 1u) << "while the session is still connecting";
  EXPECT_THAT(joining.error(guardMs), AllOf(HasSubstr(deaf.url()), HasSubstr("within 200 ms")));

  const auto master = makeMaster();
  session->connect(master->url().str()).value(guardMs);
  session->registerService("Counter", makeObject()).value(guardMs);
  EXPECT_EQ(master->services().value(guardMs)[1].endpoints(), session->endpoints());
}

TEST(Sessions, WithdrawAndCloseThoughTheirDirectoryHasStopped) {
  DynamicObjectBuilder builder;  // a directory that stops after a registration
  const Promise<void> never;
  builder.advertiseMethod("registerService",
                          [id = 6u](const directory::ServiceEntry&) mutable { return ++id; });
  builder.advertiseMethod("serviceReady", [](unsigned) {});
  builder.advertiseMethod("unregisterService", [never](unsigned) { return never.future(); });
  ForeignSession stopped("stopped");
  stopped.serve(1, builder.object());

  SessionSettings settings;
  settings.withdrawTime = std::chrono::milliseconds(100);
  const auto session = settings.makeSession();
  session->connect(stopped.url().str()).value(guardMs);
  for (unsigned id = 7; id < 37; ++id)
    EXPECT_EQ(session->registerService("Counter" + std::to_string(id), makeObject()).value(guardMs),
              id);
  EXPECT_THAT(session->unregisterService(7).error(guardMs),
              AllOf(HasSubstr("within 100 ms"), HasSubstr("service 7")));
  EXPECT_TRUE(session->service("Counter7", "local").hasError(0));
  const auto start = std::chrono::steady_clock::now();
  for (unsigned id = 8; id < 37; ++id)
    EXPECT_THAT(session->unregisterService(id).error(guardMs), HasSubstr("within 100 ms"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500))
      << "they wait but once for a directory that stands still";
  EXPECT_EQ(session->close().wait(guardMs), FutureState::FinishedWithValue);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
}

}  // namespace
}  // namespace gv
