// Proxies: binding, typed and untyped calls near and far, and what each failure looks like.

#include <gmock/gmock.h>
#include <jxcommon/jxbrokermanager.h>

#include <functional>
#include <map>

#include "callsfixture.h"
#include "support/log_capture.h"
#include "support/thrown.h"

namespace JX {
namespace {

INSTANTIATE_TEST_SUITE_P(A, Calls, everywhere, nameOfPlace);

TEST_P(Calls, TypedCallsConvertBothWays) {
  EXPECT_EQ(proxy->call<std::string>("greet", "Ada"), "hello Ada") << "a literal is a text";
  EXPECT_EQ(proxy->call<std::string>("greet(s)", "Ada"), "hello Ada") << "a full signature";
  EXPECT_EQ((proxy->call<double, std::vector<short>>("count", {1, 2, 3})), 3.0);
  EXPECT_EQ(proxy->call<int>("later", 5), 5) << "a future's value is waited for";
  const std::map<std::string, int> map = {{"x", 1}};
  EXPECT_EQ(proxy->call<JXValue>("echo", map).toJson(), "[[\"x\", 1]]");
}

TEST_P(Calls, UntypedCallsPassEachElementOfTheArray) {
  const JXValue values = JXValue::fromJson(
      "[true, -1, -9223372036854775808, 18446744073709551615, 0.1, \"\", {\"$text\": \"/wA=\"},"
      " {\"$binary\": \"AAE=\"}, [1, \"a\", [[]]], null]");
  for (int i = 0; i < values.getSize(); ++i) {
    const JXValue result = proxy->genericCall("echo", std::vector<JXValue>{values[i]});
    EXPECT_EQ(result, values[i]);
    EXPECT_EQ(result.kind(), values[i].kind()) << values[i].toJson();
  }
  const JXValue numbers = std::vector<JXValue>{std::vector<JXValue>{1, 2.0}};
  EXPECT_EQ(proxy->genericCall("count", numbers).toInt(), 2);
  EXPECT_FALSE(proxy->genericCall("withdraw", JXValue()).isValid()) << "no result is no value";
}

std::vector<JXValue> values(std::vector<JXValue> elements) {
  return elements;
}

TEST_P(Calls, EachFailureIsAnErrorWithItsPosition) {
  const std::string typed = "../libjxcommon/jxcommon/jxproxy:48";
  const std::string untyped = "../libjxcommon/src/jxproxy:";
  // The process of the module waits for a future, and answers with what became of it.
  const std::string eventual = untyped + (isElsewhere() ? "219" : "226");
  const std::string noFly = "there is no method of that name";
  const std::string greets = "candidate(s): greet(s)";
  const std::string eithers = "candidate(s): either(ni) either(in)";
  const std::string canceled = "the future was canceled";
  const std::string broken = "broken promise: every promise of this future is gone unsettled";
  const std::string wrongResult =
      "Unable to convert call result to target type: from string to int32";
  const struct {
    const char* method;
    std::function<void(const std::string&)> call;
    std::string description;
    std::string position;
  } rows[] = {
      {"fail", [&](auto& m) { proxy->call<void>(m, "as told"); }, "as told", typed},
      {"failOddly", [&](auto& m) { proxy->call<void>(m); }, "unknown exception", typed},
      {"fly", [&](auto& m) { proxy->call<int>(m, 1); }, "unknown method 'fly(i)': " + noFly, typed},
      {"gret", [&](auto& m) { proxy->call<int>(m); },
       "unknown method 'gret()': " + noFly + "; did you mean: greet(s)?", typed},
      {"greet", [&](auto& m) { proxy->call<int>(m, 1, 2); },
       "no single method matches 'greet(ii)'; " + greets, typed},
      {"greet", [&](auto& m) { proxy->call<int>(m, 1); },
       "no single method matches 'greet(i)'; " + greets + "; argument 1 cannot convert from i to s",
       typed},
      {"count",
       [&](auto& m) {
         proxy->call<int>(m, std::vector<JXValue>{1, "two"});
       },
       "no single method matches 'count(av)'; candidate(s): count(ai); argument 1 cannot convert "
       "from av to ai",
       typed},
      {"either", [&](auto& m) { proxy->call<void>(m, 1, 2); },
       "no single method matches 'either(ii)'; " + eithers, typed},
      {"greet", [&](auto& m) { proxy->call<int>(m, "x"); }, wrongResult, typed},
      {"laterText", [&](auto& m) { proxy->call<int>(m); }, wrongResult, typed},
      {"echo", [&](auto& m) { proxy->call<std::int8_t>(m, 300); },
       "Return argument conversion error: cannot convert int32 300 to int8: the value does not fit",
       typed},
      {"laterBroken", [&](auto& m) { proxy->call<int>(m, 1); }, "too late", typed},
      {"canceled", [&](auto& m) { proxy->call<int>(m); }, canceled, typed},
      {"broken", [&](auto& m) { proxy->call<int>(m); }, broken, typed},
      {"fail", [&](auto& m) { proxy->genericCall(m, values({"as told"})); }, "as told",
       untyped + "219"},
      {"failOddly", [&](auto& m) { proxy->genericCall(m, values({})); }, "unknown exception",
       untyped + "219"},
      {"fly", [&](auto& m) { proxy->genericCall(m, JXValue()); },
       "unknown method 'fly()': " + noFly, untyped + "219"},
      {"either",
       [&](auto& m) {
         proxy->genericCall(m, values({1, 2}));
       },
       "no single method matches 'either(vv)'; " + eithers, untyped + "219"},
      {"self", [&](auto& m) { proxy->genericCall(m, values({})); },
       "Unable to convert call result to target type: from object to dynamic", untyped + "226"},
      {"laterBroken", [&](auto& m) { proxy->genericCall(m, values({1})); }, "too late", eventual},
      {"canceled", [&](auto& m) { proxy->genericCall(m, values({})); }, canceled, eventual},
      {"broken", [&](auto& m) { proxy->genericCall(m, values({})); }, broken, eventual},
      {"pCall", [&](auto& m) { proxy->call<int>(m); }, "Callee::pCall: missing function name",
       typed},
      {"__pCall", [&](auto& m) { proxy->call<int>(m, 98u, std::vector<gv::AnyValue>()); },
       "Callee::_pCall: Cant find methodId #98 on module:Callee", typed},
      {"greet",
       [&](auto& m) {
         proxy->genericPCall(m, values({1, 2}));
       },
       "JXProxy(Callee).pcall Can't find single match for greet\n  Candidate(s):\n  greet(s)\n",
       untyped + "355"},
      {"either", [&](auto& m) { proxy->pCall(m, 1, 2); },
       "JXProxy(Callee).pcall Can't find single match for either\n"
       "  Candidate(s):\n  either(ni)\n  either(in)\n",
       untyped + "355"},
      {"greet(s)", [&](auto& m) { proxy->pCall(m, 1); },
       "JXProxy(Callee).pcall Can't find single match for greet(s)\n  Candidate(s):\n  greet(s)\n",
       untyped + "355"},
      {"fly", [&](auto& m) { proxy->pCall(m, 1); },
       "JXProxy(Callee).pcall Can't find single match for fly\n  Candidate(s):\n", untyped + "355"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(
        errorOf([&] { row.call(row.method); }).toString(),
        std::string("Callee::") + row.method + ": " + row.description + " (" + row.position + ")");
}

TEST_P(Calls, AResultThatDoesNotConvertIsLogged) {
  const house::LogCapture log;
  errorOf([&] { proxy->call<int>("greet", "x"); });
  ASSERT_EQ(log.records().size(), 1u);
  const gv::log::Record record = log.records()[0];
  EXPECT_EQ(record.category + ":" + record.function + ": " + record.text,
            "gv.adapter:setPromise: Unable to convert call result to target type: from string to "
            "int32");
}

TEST_P(Calls, RunWhereTheirTypeSays) {
  const auto object = proxy->asObject();
  const std::string onLoop = "isOnEventLoop";
  for (const auto type :
       {gv::MetaCallType::Auto, gv::MetaCallType::Direct, gv::MetaCallType::Queued}) {
    EXPECT_EQ(object.metaCall(onLoop, {}, type).value().to<bool>(),
              type == gv::MetaCallType::Queued)
        << "otherwise in the thread that calls, or reads";
    EXPECT_TRUE(object.metaCall(98, {}, type).hasError());
    EXPECT_TRUE(object.metaCall(99, {}, type).hasError());
  }
}

TEST_P(Calls, AMethodMayShutItsOwnBrokerDown) {
  try {
    proxy->call<void>("shutDown");
  } catch (const JXError& error) {
    EXPECT_TRUE(isElsewhere()) << "the connection may go before the reply: " << error.description();
  }
  waitUntilTheModuleIsGone();
}

/// Nothing can be called through such a proxy, and each call says so in its own place.
void expectDestroyed(JXProxy& proxy) {
  const std::string text = proxy.moduleName() + "::f: module destroyed (../libjxcommon/";
  const JXValue none = values({});
  const struct {
    std::function<void()> call;
    const char* position;
  } rows[] = {{[&] { proxy.call<int>("f", 1); }, "jxcommon/jxproxy:48)"},
              {[&] { proxy.genericCall("f", none); }, "src/jxproxy:207)"},
              {[&] { proxy.pCallNotify("f", "", none, none); }, "src/jxproxy:281)"},
              {[&] { proxy.pCall("f", 1); }, "src/jxproxy:339)"},
              {[&] { proxy.genericPCall("f", none, nullptr, nullptr); }, "src/jxproxy:339)"}};
  for (const auto& row : rows) EXPECT_EQ(errorOf(row.call).toString(), text + row.position);
  for (const auto& control :
       std::map<std::string, std::function<void()>>{{"version", [&] { proxy.version(); }},
                                                    {"wait", [&] { proxy.wait(1, 1); }},
                                                    {"isRunning", [&] { proxy.isRunning(1); }},
                                                    {"stop", [&] { proxy.stop(1); }}})
    EXPECT_EQ(errorOf(control.second).toString(),
              proxy.moduleName() + "::" + control.first +
                  ": module destroyed (../libjxcommon/jxcommon/jxproxy:48)");
  EXPECT_EQ(house::errorOf([&] { proxy.asObject(); }),
            "Failed to lock object for proxy " + proxy.moduleName());
  EXPECT_TRUE(proxy.isValid());
}

TEST_P(Calls, AProxyHoldsItsModuleWeakly) {
  JXProxy direct(proxy->asObject(), "Callee");
  EXPECT_EQ(direct.getParentBroker(), nullptr);
  EXPECT_EQ(direct.getModuleCore(), nullptr);
  EXPECT_EQ(direct.call<std::string>("greet", "you"), "hello you");
  JXProxy copy(*proxy);
  EXPECT_EQ(copy.moduleName(), "");
  expectDestroyed(copy);
  withdrawTheModule();
  EXPECT_EQ(liveModules.live(), 0);
  expectDestroyed(direct);
  expectDestroyed(*proxy);
}

// What is not the same everywhere, besides the line of an untyped call whose future failed, and the
// reply of a method that ends its own process's connections.
TEST_P(Calls, WhereTheModuleIsShowsInTheProxy) {
  const bool isHere = !isElsewhere();
  EXPECT_EQ(proxy->isLocal(), isHere);
  EXPECT_EQ(proxy->getParentBroker(), broker);
  EXPECT_EQ(proxy->getModule() != nullptr, GetParam() == Place::SameBroker);
  EXPECT_EQ(proxy->getModuleCore(), proxy->getModule());
  const auto thread = proxy->call<unsigned>("thread");
  EXPECT_EQ(thread == gv::os::gettid(), isHere) << "a call of this process stays in its thread";
}

TEST_P(Calls, WhatWasNeverImplementedSaysSo) {
  const house::LogCapture log;
  JXModuleInfo info;
  info.name = "untouched";
  EXPECT_TRUE(proxy->isValid());
  EXPECT_EQ(proxy->getInfo(info), -1);
  EXPECT_EQ(info.name, "untouched");
  EXPECT_EQ(proxy->getFunctor("greet", {"string"}), nullptr);
  EXPECT_EQ(proxy->remoteBrokerName(), "JXProxy::remoteBrokerName not implemented");
  proxy->destroyConnection();
  EXPECT_EQ(proxy->version(), "2.1.4");
  const auto callback = [](const char*, int, const JXValue&) -> int { throw "never called"; };
  EXPECT_FALSE(proxy->wait(proxy->genericPCall("greet", values({"you"}), callback, "x"), 0));
  std::string texts;
  for (const auto& record : log.records())
    if (record.category == "jxcommon.jxproxy")
      texts += std::to_string(static_cast<int>(record.level)) + " " + record.function + ": " +
               record.text + "\n";
  EXPECT_EQ(texts,
            "2 isValid: JXProxy::isValid always return true\n"
            "2 getInfo: JXProxy::getInfo not implemented\n"
            "2 getFunctor: JXProxy::getFunctor not implemented\n"
            "2 remoteBrokerName: JXProxy::remoteBrokerName not implemented\n"
            "3 genericPCall: JXProxy.genericPCall does not implement callbacks.\n");
  EXPECT_EQ(proxy->getThis(), proxy);
  JXProxy onTheStack(broker, "Callee");
  EXPECT_THROW(onTheStack.getThis(), boost::bad_weak_ptr);
}

TEST_P(Calls, BindingFailsWithTheTextOfItsConstructor) {
  const int port = broker->getPort();
  const struct {
    std::function<void()> make;
    std::string description;
  } rows[] = {
      {[] { JXProxy(Broker(), "X", 0, 0); }, "Broker is invalid"},
      {[&] { JXProxy(broker, "X", 0, 0); }, "Can't find service: X"},
      {[] { JXProxy(gv::Object<gv::Empty>(), "X"); }, "Object is invalid"},
      {[&] { JXProxy("X", "nowhere", 1, broker, 0, 0); }, "Can't find service: X"},
      {[&] { JXProxy("X", "127.0.0.1", port, 0, 0); },
       "Can't find service: X (127.0.0.1:" + std::to_string(port) + ")"},
  };
  for (const auto& row : rows) {
    const JXError error = errorOf(row.make);
    EXPECT_EQ(error.what(), "JXProxy::JXProxy: " + row.description);
    EXPECT_EQ(error.file(), "../libjxcommon/src/jxproxy");
  }
  JXBrokerManager::getInstance()->getBrokerByName("X")->shutdown();
}

TEST_P(Calls, TheOldConstructorsComplainInTheLog) {
  gv::log::setLevel(gv::log::Level::Info);
  const house::LogCapture log;
  JXProxy ignoresTheAddress("Callee", "nowhere", 1, broker, 0, 0);
  EXPECT_EQ(ignoresTheAddress.call<std::string>("greet", "you"), "hello you");
  JXProxy makesABroker("Callee", "127.0.0.1", broker->getPort(), 0, 0);
  EXPECT_EQ(makesABroker.call<std::string>("greet", "you"), "hello you");
  JXBrokerManager::getInstance()->getBrokerByName("Callee")->shutdown();
  JXProxy unbound("Callee", 0, 0);
  expectDestroyed(unbound);
  std::string texts;
  for (const auto& record : log.records())
    if (record.function == "JXProxy")
      texts += (record.level == gv::log::Level::Error ? "error " : "warning ") + record.category +
               ": " + record.text + "\n";
  EXPECT_EQ(
      texts,
      "warning jxcommon.jxproxy: Entering WTFBBQ JXProxy constructor.\n"
      "warning jxcommon.jxproxy: JXProxy(ModuleName, IP, Port) is DEPRECATED. Create a broker "
      "yourself and ask it for a proxy.\n"
      "error jxcommon.JXProxy: What do you want to achieve? Please specify a broker\n");
}

}  // namespace
}  // namespace JX
