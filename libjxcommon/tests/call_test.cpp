// Proxies: binding, typed and untyped calls near and far, and what each failure looks like.

#include <gmock/gmock.h>
#include <jxcommon/jxbrokermanager.h>

#include <functional>
#include <map>

#include "callsfixture.h"
#include "support/log_capture.h"

namespace JX {
namespace {

INSTANTIATE_TEST_SUITE_P(A, Calls, ::testing::Bool(), nameOfPlace);

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

TEST_P(Calls, EachFailureIsAnErrorWithItsPosition) {
  using Method = const std::string&;
  const JXValue text = std::vector<JXValue>{"as told"};
  const struct {
    const char* method;
    std::function<void(Method)> call;
    int line;
    const char* part;
  } rows[] = {
      {"fail", [&](Method m) { proxy->call<void>(m, "as told"); }, 48, "as told"},
      {"failOddly", [&](Method m) { proxy->call<void>(m); }, 48, "unknown exception"},
      {"fly", [&](Method m) { proxy->call<int>(m, 1); }, 48, "fly(i)"},
      {"greet", [&](Method m) { proxy->call<int>(m, 1, 2); }, 48, "greet(s)"},
      {"greet", [&](Method m) { proxy->call<int>(m, "x"); }, 48, "target type: from string to int"},
      {"echo", [&](Method m) { proxy->call<char>(m, 300); }, 48, "Return argument conversion err"},
      {"fail", [&](Method m) { proxy->genericCall(m, text); }, 219, "as told"},
      {"fly", [&](Method m) { proxy->genericCall(m, JXValue()); }, 219, "fly()"},
  };
  for (const auto& row : rows) {
    const JXError error = errorOf([&] { row.call(row.method); });
    EXPECT_EQ(error.moduleName(), "Callee");
    EXPECT_EQ(error.methodName(), row.method);
    EXPECT_NE(error.description().find(row.part), std::string::npos) << error.description();
    EXPECT_EQ(error.line(), row.line) << row.part;
    EXPECT_EQ(error.file(),
              row.line == 48 ? "../libjxcommon/jxcommon/jxproxy" : "../libjxcommon/src/jxproxy");
  }
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
    EXPECT_TRUE(GetParam()) << "the connection may go before the reply: " << error.description();
  }
  waitUntilTheModuleIsGone();
}

void expectDestroyed(JXProxy& proxy) {
  EXPECT_EQ(errorOf([&] { proxy.call<int>("f", 1); }).toString(),
            proxy.moduleName() + "::f: module destroyed (../libjxcommon/jxcommon/jxproxy:48)");
  EXPECT_EQ(errorOf([&] { proxy.genericCall("f", JXValue()); }).toString(),
            proxy.moduleName() + "::f: module destroyed (../libjxcommon/src/jxproxy:207)");
  EXPECT_THROW(proxy.asObject(), std::runtime_error);
}

TEST_P(Calls, AProxyHoldsItsModuleWeakly) {
  JXProxy direct(proxy->asObject(), "Callee");
  EXPECT_EQ(direct.getParentBroker(), nullptr);
  EXPECT_EQ(direct.call<std::string>("greet", "you"), "hello you");
  proxy->call<void>("withdraw");
  if (GetParam()) broker->shutdown();
  EXPECT_EQ(liveModules.live(), 0);
  expectDestroyed(direct);
  expectDestroyed(*proxy);
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
