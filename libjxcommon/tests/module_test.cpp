// A module by itself: what its bindings tell of it, and which road each call takes.

#include <gtest/gtest.h>
#include <jxcommon/jxmethodinfo.h>

#include <functional>
#include <future>

#include "support/thrown.h"
#include "support/watchdog.h"
#include "testmodule.h"

namespace JX {
namespace {

using gv::AnyReference;
using gv::MetaCallType;

boost::shared_ptr<TestModule> makeModule() {
  return boost::make_shared<TestModule>(nullptr, "Lonely");
}

gv::Future<AnyReference> start(TestModule& module, const std::string& name, MetaCallType type,
                               const gv::GenericFunctionParameters& arguments = {}) {
  const unsigned id = module.metaObject().findMethod(name).at(0).uid();
  return module.metaCall(module.asObject(), id, arguments, type, {});
}

TEST(Binding, AFunctorIsSpentAndBindingItAgainOffersAnEmptyFunction) {
  const auto module = makeModule();
  const auto functor = makeFunctor([] { return 1; });
  module->bind("once", functor);
  EXPECT_FALSE(functor->function);
  module->bindMethod(functor, "twice", "Elsewhere", "d", JXMethodInfo());
  EXPECT_EQ(start(*module, "once", MetaCallType::Auto).value().to<int>(), 1);
  EXPECT_EQ(start(*module, "twice", MetaCallType::Auto).error(), "the function is empty");
  EXPECT_EQ(module->getCurrentMethodDescription()->methodName, "");
}

TEST(Binding, ARefusedNameIsAnErrorThatLeavesTheFunctorAlone) {
  const auto module = makeModule();
  const auto functor = makeFunctor([] {});
  module->functionName("a/b", "", "");
  const std::string reason =
      house::errorOf<std::exception>([&] { module->bindMethodOverload(functor); });
  EXPECT_NE(reason.find("a/b"), std::string::npos) << reason;
  const std::string expected =
      "Lonely::bindMethod: In module Lonely, " + reason + " (../libjxcommon/src/jxmodulecore:492)";
  EXPECT_EQ(errorOf([&] { module->bindMethod(functor); }).toString(), expected);
  EXPECT_EQ(errorOf([&] { module->bindMethod(functor, "a/b", "", "", {}); }).toString(), expected);
  EXPECT_TRUE(functor->function);
  EXPECT_THROW(errorOf([&] { module->bindMethodOverload(functor); }), std::runtime_error);
}

TEST(ModuleErrors, AreTheSameWordForWord) {
  const auto module = makeModule();
  const std::vector<gv::AnyValue> none;
  const struct {
    std::function<void()> action;
    const char* error;
  } rows[] = {
      {[&] { module->bindMethod(nullptr, "f", "", "", {}); },
       "bindMethod: In module Lonely, there is no functor to bind"
       " (../libjxcommon/src/jxmodulecore:492)"},
      {[&] { module->getMethodHelp("fly"); },
       "getMethodHelp: ERROR: unknown method: 'fly' (../libjxcommon/src/jxmodulecore:416)"},
      {[&] { module->_pCall(4711, none); },
       "_pCall: Cant find methodId #4711 on module:Lonely (../libjxcommon/src/jxmodulecore:595)"},
      {[&] { module->pCall({}); },
       "pCall: missing function name (../libjxcommon/src/jxmodulecore:611)"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(errorOf(row.action).toString(), std::string("Lonely::") + row.error);
}

TEST(Routing, DirectAndAutomaticCallsRunInTheCallersThreadQueuedOnesOnTheLoop) {
  const auto module = makeModule();
  const auto threadOf = [&](MetaCallType type) {
    return start(*module, "thread", type).value().to<unsigned>();
  };
  EXPECT_TRUE(start(*module, "thread", MetaCallType::Auto).isFinished());
  EXPECT_EQ(threadOf(MetaCallType::Auto), gv::os::gettid());
  EXPECT_EQ(threadOf(MetaCallType::Direct), gv::os::gettid());
  EXPECT_NE(threadOf(MetaCallType::Queued), gv::os::gettid());
}

TEST(Routing, AModuleWithoutAnOwnerIsNeitherCalledNorPublished) {
  TestModule module(nullptr, "Unowned");
  const unsigned greet = module.metaObject().findMethod("greet").at(0).uid();
  const std::function<void()> actions[] = {
      [&] { module.getThis(); },
      [&] { module.asObject(); },
      [&] { module.initModule(); },
      [&] { module.metaCall({}, greet, {}, MetaCallType::Auto, {}); },
      [&] { module._pCall(greet, {}); },
  };
  for (const auto& action : actions) EXPECT_THROW(action(), boost::bad_weak_ptr);
  EXPECT_TRUE(module.isModuleStopped());
  module.exit();
}

TEST(Routing, ErrorsTravelInTheFuture) {
  const auto module = makeModule();
  const std::string text = "deliberate";
  const std::unique_ptr<int> uncopyable;
  for (const MetaCallType type : {MetaCallType::Auto, MetaCallType::Direct, MetaCallType::Queued}) {
    EXPECT_EQ(start(*module, "fail", type, {AnyReference::from(text)}).error(), text);
    EXPECT_EQ(start(*module, "failOddly", type).error(), "unknown exception");
    EXPECT_TRUE(start(*module, "fail", type, {AnyReference::from(uncopyable)}).hasError());
    for (const unsigned unknown : {99u, 4711u})
      EXPECT_EQ(module->metaCall(module->asObject(), unknown, {}, type, {}).error(),
                "Cant call methodId:" + std::to_string(unknown) + " on module:Lonely");
    EXPECT_EQ(module->metaCall(module->asObject(), 98, {}, type, {}).error().find("Cant"),
              std::string::npos)
        << "the framework's own methods are the framework's";
  }
}

TEST(Routing, AQueuedCallKeepsItsModuleAndItsArguments) {
  const house::Watchdog watchdog("AQueuedCallKeepsItsModuleAndItsArguments");
  std::promise<void> open;
  gv::Future<AnyReference> result;
  {
    const auto module = makeModule();
    module->bind("slow", makeFunctor([gate = open.get_future().share()](const std::string& text) {
                   gate.wait();
                   return text + " after";
                 }));
    const std::string argument = "read";
    result = start(*module, "slow", MetaCallType::Queued, {AnyReference::from(argument)});
  }
  EXPECT_EQ(liveModules.live(), 1);
  open.set_value();
  EXPECT_EQ(result.value().to<std::string>(), "read after");
}

}  // namespace
}  // namespace JX
