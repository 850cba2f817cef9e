// What a module tells of itself, and what is left of the older interface, word for word.

#include <gmock/gmock.h>
#include <jxcommon/jxmethodinfo.h>
#include <jxcommon/jxmoduleinfo.h>
#include <jxcommon/jxproxy.h>

#include <functional>

#include "support/log_capture.h"
#include "testmodule.h"

namespace JX {
namespace {

using gv::log::Level;
using testing::ElementsAre;
using testing::ElementsAreArray;

boost::shared_ptr<TestModule> makeModule() {
  return boost::make_shared<TestModule>(nullptr, "Lonely");
}

TEST(Introspection, ListsEachNameOnceTheFrameworksFirst) {
  const auto module = makeModule();
  module->bind("greet", makeFunctor([](int n) { return n; }));  // an overload
  const auto names = module->getMethodList();
  const auto own = std::find(names.begin(), names.end(), "exit");
  EXPECT_GT(own - names.begin(), 3) << "those of every object come first";
  EXPECT_EQ(std::count(names.begin(), names.end(), "greet"), 1);
  EXPECT_THAT(std::vector(own, own + 14),
              ElementsAre("exit", "__pCall", "pCall", "version", "ping", "getMethodList",
                          "getMethodHelp", "getModuleHelp", "wait", "isRunning", "stop",
                          "getBrokerName", "getUsage", "greet"));
}

TEST(Introspection, DescribesTheStandardMethodsInTheirOwnWords) {
  const auto module = makeModule();
  const char* const posted =
      "The ID of the method that was returned when calling the method using 'post'";
  const std::string id = std::string("[[\"id\", \"") + posted + "\"]";
  const struct {
    const char* name;
    std::string help;
  } rows[] = {
      {"exit", R"(["exit", "Exits and unregisters the module.", [], "", ""])"},
      {"__pCall", R"(["__pCall", "Internal function to pCall methods", [], "", ""])"},
      {"pCall", R"(["pCall", "Orvex1 pCall method.", [], "", ""])"},
      {"version", R"(["version", "Returns the version of the module.", [], "", )"
                  R"("A string containing the version of the module."])"},
      {"ping", R"(["ping", "Just a ping. Always returns true", [], "", "returns true"])"},
      {"getMethodList", R"(["getMethodList", "Retrieves the module's method list.", [], "", )"
                        R"("An array of method names."])"},
      {"getMethodHelp", R"(["getMethodHelp", "Retrieves a method's description.", )"
                        R"([["methodName", "The name of the method."]], "", )"
                        R"("A structure containing the method's description."])"},
      {"getModuleHelp", R"(["getModuleHelp", "Retrieves the module's description.", [], "", )"
                        R"("A structure describing the module."])"},
      {"wait", R"(["wait", "Wait for the end of a long running method that was called using )"
               R"('post'", )" +
                   id +
                   R"(, ["timeoutPeriod", "The timeout period in ms. To wait indefinately, use a )"
                   R"(timeoutPeriod of zero."]], "", )"
                   R"("True if the timeout period terminated. False if the method returned."])"},
      {"isRunning", R"(["isRunning", "Returns true if the method is currently running.", )" + id +
                        R"(], "", "True if the method is currently running"])"},
      {"stop", R"(["stop", "returns true if the method is currently running", )"
               R"([["id", "the ID of the method to wait for"]], "", ""])"},
      {"getBrokerName", R"(["getBrokerName", "Gets the name of the parent broker.", [], "", )"
                        R"("The name of the parent broker."])"},
      {"getUsage", R"(["getUsage", "Gets the method usage string. This summarises how to use )"
                   R"(the method.", [["name", "The name of the method."]], "", )"
                   R"("A string that summarises the usage of the method."])"},
  };
  for (const auto& row : rows) EXPECT_EQ(module->getMethodHelp(row.name).toJson(), row.help);
}

TEST(Introspection, OverridesAnswerWhereTheStandardMethodsAreCalled) {
  struct Newer : TestModule {
    using TestModule::TestModule;
    std::string version() override { return "3"; }
    void stop(const int& id) override { stopped = id; }
    int stopped = 0;
  };
  const auto module = boost::make_shared<Newer>(nullptr, "Newer");
  JXProxy proxy(module->asObject(), "Newer");
  EXPECT_EQ(proxy.call<std::string>("version"), "3");
  proxy.call<void>("stop", 7);
  EXPECT_EQ(module->stopped, 7);
  EXPECT_EQ(makeModule()->version(), "2.1.4");
  EXPECT_TRUE(proxy.call<bool>("ping"));
}

TEST(Introspection, WhatIsNotImplementedSaysSo) {
  gv::log::setLevel(Level::Verbose);
  const auto module = makeModule();
  const std::vector<std::string> types;
  JXValue result = 5;
  const auto isNone = [](const JXMethodInfo* info) { return info == nullptr; };
  const struct {
    const char* name;
    std::function<bool()> asBefore;
    Level level = Level::Error;
    const char* replacement = nullptr;
  } rows[] = {
      {"setModuleID", [&] { return module->setModuleID(5), true; }},
      {"getModuleID", [&] { return module->getModuleID() == -1; }},
      {"getModuleType", [&] { return module->getModuleType() == 0; }},
      {"setModuleType", [&] { return module->setModuleType({}), true; }, Level::Verbose},
      {"getModuleInfo", [&] { return !module->getModuleInfo(); }},
      {"getProxy", [&] { return !module->getProxy("x"); }},
      {"getMethodInfo", [&] { return isNone(module->getMethodInfo("x")); }},
      {"getMethodInfo", [&] { return isNone(module->getMethodInfo("x", types)); }},
      {"getMethodInfo", [&] { return isNone(module->getMethodInfo("x", result)); }},
      {"getMethodInfoByNameMember",
       [&] { return isNone(module->getMethodInfoByNameMember("x", types)); }},
      {"getFunctionDesc", [&] { return isNone(module->getFunctionDesc("x")); }, Level::Warning,
       "getMethodInfo"},
      {"getFunctionDesc", [&] { return isNone(module->getFunctionDesc("x", types)); },
       Level::Warning, "getMethodInfo"},
      {"getFunctionDesc", [&] { return isNone(module->getFunctionDesc("x", result)); },
       Level::Warning, "getMethodInfo"},
      {"getFunctionDescByNameMember",
       [&] { return isNone(module->getFunctionDescByNameMember("x", types)); }, Level::Warning,
       "getMethodInfoByNameMember"},
      {"execute", [&] { return !module->execute("x", {}, result) && result.toInt() == 5; }},
      {"getUsage",
       [&] { return module->getUsage("x") == "JXModuleCore::getUsage not implemented"; }},
      {"moduleHelp", [&] { return !module->moduleHelp().isValid(); }},
      {"getMethodHelpObject", [&] { return module->getMethodHelpObject("x").methodName.empty(); }},
      {"getBrokerName",
       [&] { return module->getBrokerName() == "JXModuleCore::getBrokerName not implemented"; }},
      {"httpGet",
       [&] { return module->JXModuleCore::httpGet() == "JXModuleCore::httpGet not implemented"; }},
  };
  for (const auto& row : rows) {
    const std::string name = row.name;
    const house::LogCapture log;
    EXPECT_TRUE(row.asBefore()) << name;
    std::vector<std::string> expected, told;
    if (row.replacement)
      expected.push_back("DEPRECATED 1/2011: " + name + ", please use " + row.replacement);
    const std::string last = row.replacement ? row.replacement : name;
    expected.push_back("JXModuleCore::" + last + " not implemented");
    for (const auto& record : log.records()) {
      told.push_back(record.text);
      EXPECT_EQ(record.category, "jxcommon.jxmodulecore");
      EXPECT_EQ(record.function, told.size() == 1 ? name : last);
      EXPECT_EQ(record.level, told.size() == 1 ? row.level : Level::Error);
    }
    EXPECT_THAT(told, ElementsAreArray(expected));
  }
  const house::LogCapture log;
  EXPECT_EQ(module->httpGet(), "JXModule::httpGet not implemented");
  ASSERT_EQ(log.records().size(), 1u);
  const auto record = log.records().front();
  EXPECT_EQ(record.category + " " + record.function + " " + record.text,
            "JXModule httpGet JXModule::httpGet not implemented");
  EXPECT_EQ(record.level, Level::Error);
  EXPECT_EQ(record.file, "");
  EXPECT_EQ(record.line, 0);
}

}  // namespace
}  // namespace JX
