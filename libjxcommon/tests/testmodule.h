#pragma once

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gv/eventloop.h>
#include <gv/os.h>
#include <jxcommon/jxbroker.h>
#include <jxcommon/jxmodule.h>
#include <jxerror/jxerror.h>

#include "support/live_counter.h"

namespace JX {

inline house::LiveCounter liveModules;

/// A module of methods that tests call; the binding operations are open to the tests.
class TestModule : public JXModule {
 public:
  TestModule(boost::shared_ptr<JXBroker> broker, const std::string& name) : JXModule(broker, name) {
    bind("greet", makeFunctor(this, &TestModule::greet));
    bind("count", makeFunctor([](const std::vector<int>& list) { return list.size(); }));
    bind("echo", makeFunctor([](const JXValue& value) { return value; }));
    bind("thread", makeFunctor([] { return gv::os::gettid(); }));
    bind("fail", makeFunctor([](const std::string& text) { throw std::domain_error(text); }));
    bind("failOddly", makeFunctor([] { throw 7; }));
    bind("later", makeFunctor([](int n) { return gv::getEventLoop()->async([n] { return n; }); }));
    bind("laterBroken", makeFunctor([](int) {
           return gv::getEventLoop()->async([]() -> int { throw std::domain_error("too late"); });
         }));
    bind("canceled",
         makeFunctor([] { return ended([](auto& promise) { promise.setCanceled(); }); }));
    bind("broken", makeFunctor([] { return ended([](auto&) {}); }));
    bind("laterText", makeFunctor([] { return gv::makeReadyFuture(std::string("text")); }));
    bind("self", makeFunctor([this] { return asObject(); }));
    bind("either", makeFunctor([](short, int) {}));
    bind("either", makeFunctor([](int, short) {}));
    bind("untilStopped", makeFunctor(this, &TestModule::untilStopped));
    bind("waitFor", makeFunctor([this](int id) { return wait(id, 0); }));
    bind("heldUntilAllWait", makeFunctor(this, &TestModule::heldUntilAllWait));
    bind("running", makeFunctor([this] { return running_.load(); }));
    bind("task", makeFunctor(this, &TestModule::getMethodID));
    bind("onThree", makeFunctor([this](const std::string& a, const JXValue& b, const JXValue& c) {
           hear("three " + a + " " + b.toJson() + " " + c.toJson());
         }));
    bind("onTwo", makeFunctor([this](const std::string& a, const JXValue& b) {
           hear("two " + a + " " + b.toJson());
         }));
    bind("onOne", makeFunctor([this](const std::string& a) { hear("one " + a); }));
    bind("onNone", makeFunctor([this] { hear("none"); }));
    bind("onOneOrThree", makeFunctor([this](const std::string&) { hear("one"); }));
    bind("onOneOrThree", makeFunctor([this](const std::string&, const JXValue&, const JXValue&) {
           hear("three");
         }));
    bind("onNumber", makeFunctor([this](const std::string&, int number) {
           hear("number " + std::to_string(number));
         }));
    bind("heard", makeFunctor(this, &TestModule::heard));
    bind("withdraw", makeFunctor(this, &TestModule::exit));
    bind("shutDown", makeFunctor([this] { getParentBroker()->shutdown(); }));
    bind("greetSlowly", makeFunctor(this, &TestModule::greetSlowly));
    bind("comeAndGo", makeFunctor(this, &TestModule::comeAndGo));
    bind("isOnEventLoop", makeFunctor([] { return gv::getEventLoop()->isInThisContext(); }));
  }

  /// A future that has ended as it is told to, or else when its promise goes.
  static gv::Future<int> ended(void (*end)(gv::Promise<int>&)) {
    gv::Promise<int> promise;
    end(promise);
    return promise.future();
  }

  std::string greet(const std::string& who) const { return "hello " + who; }

  std::string greetSlowly(const std::string& who) {
    for (int i = 0; i < 20; ++i) std::this_thread::yield();
    ++greeted_;
    return greet(who);
  }

  /// Withdraws the module "Callee" of the same broker and publishes it again, so many times; each
  /// time another one has the name meanwhile. Stays at times until it was called.
  void comeAndGo(int rounds) {
    const auto lasting =
        boost::dynamic_pointer_cast<TestModule>(getParentBroker()->getModuleByName("Callee"));
    for (int round = 0; round < rounds; ++round) {
      const int greeted = lasting->greeted_;
      while (round % 10 == 0 && lasting->greeted_ == greeted) std::this_thread::yield();
      lasting->exit();
      createModule<TestModule>(getParentBroker(), "Callee")->exit();
      lasting->initModule();
    }
  }

  void untilStopped() {
    ++running_;
    while (!isStopRequired()) std::this_thread::yield();
    --running_;
  }

  /// A future that ends once every thread of the event loop is in a wait.
  gv::Future<void> heldUntilAllWait() {
    const gv::Promise<void> promise;
    holder_ = std::jthread([promise] {
      const auto isBusy = [](const auto& now) { return now.blocked < now.maxThreads; };
      while (isBusy(gv::getEventLoop()->figures())) std::this_thread::yield();
      promise.setValue();
    });
    return promise.future();
  }

  void hear(const std::string& text) {
    const std::lock_guard lock(heardMutex_);
    heard_.push_back(text);
  }
  /// What was heard since the last look, as soon as there is so much.
  std::vector<std::string> heard(std::size_t count) {
    while (true) {
      std::unique_lock lock(heardMutex_);
      if (heard_.size() >= count) return std::exchange(heard_, {});
      lock.unlock();
      std::this_thread::yield();
    }
  }

  void bind(const std::string& name, const boost::shared_ptr<JXFunctorBase>& functor) {
    functionName(name, getName(), "about " + name);
    bindMethod(functor);
  }

  using JXModule::addParam;
  using JXModule::bindMethod;
  using JXModule::bindMethodOverload;
  using JXModule::functionName;
  using JXModule::getCurrentMethodDescription;
  using JXModule::getMethodID;
  using JXModule::isPCalled;
  using JXModule::isStopRequired;
  using JXModule::setReturn;

 private:
  std::atomic<int> running_{0};
  std::atomic<int> greeted_{0};
  std::jthread holder_;
  std::mutex heardMutex_;  // guards heard_
  std::vector<std::string> heard_;
  house::LiveCounter::Mark mark_{liveModules};
};

/// The JXError that `action` throws; a failure of the test when it throws none.
template <class F>
JXError errorOf(F action) {
  try {
    action();
  } catch (const JXError& error) {
    return error;
  }
  throw std::logic_error("no JXError was thrown");
}

}  // namespace JX
