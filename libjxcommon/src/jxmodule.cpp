#include <jxcommon/jxmodule.h>

#include <initializer_list>

#include <gv/log.h>

#include "jxmodulecore_p.h"

namespace JX {
namespace {

// Known at load, so that tools can list it before any record is written.
const gv::log::Category& category = gv::log::category("JXModule");

constexpr const char* postedId =
    "The ID of the method that was returned when calling the method using 'post'";

}  // namespace

detail::JXProcessSignals::~JXProcessSignals() = default;

JXModule::JXModule(boost::shared_ptr<JXBroker> broker, const std::string& name)
    : JXModuleCore(std::move(broker), name) {
  struct Text {
    const char* name;
    const char* description;
  };
  const auto advertise = [this](const Text& method, std::initializer_list<Text> parameters,
                                const Text& result, auto member) {
    functionName(method.name, "JXModule", method.description, 0);
    for (const Text& parameter : parameters) addParam(parameter.name, parameter.description);
    setReturn(result.name, result.description);
    objectBuilder_.advertiseMethod(currentMethod_, this, member, gv::MetaCallType::Auto);
  };
  advertise({"version", "Returns the version of the module."}, {},
            {"result", "A string containing the version of the module."}, &JXModule::version);
  advertise({"ping", "Just a ping. Always returns true"}, {}, {"alwaysTrue", "returns true"},
            &JXModule::ping);
  advertise({"getMethodList", "Retrieves the module's method list."}, {},
            {"methodList", "An array of method names."}, &JXModule::getMethodList);
  advertise({"getMethodHelp", "Retrieves a method's description."},
            {{"methodName", "The name of the method."}},
            {"methodHelp", "A structure containing the method's description."},
            &JXModule::getMethodHelp);
  advertise({"getModuleHelp", "Retrieves the module's description."}, {},
            {"moduleHelp", "A structure describing the module."}, &JXModule::moduleHelp);
  advertise({"wait", "Wait for the end of a long running method that was called using 'post'"},
            {{"id", postedId},
             {"timeoutPeriod",
              "The timeout period in ms. To wait indefinately, use a timeoutPeriod of zero."}},
            {"timedOut", "True if the timeout period terminated. False if the method returned."},
            &JXModule::wait);
  advertise({"isRunning", "Returns true if the method is currently running."}, {{"id", postedId}},
            {"running", "True if the method is currently running"}, &JXModule::isRunning);
  advertise({"stop", "returns true if the method is currently running"},
            {{"id", "the ID of the method to wait for"}}, {"", ""}, &JXModule::stop);
  advertise({"getBrokerName", "Gets the name of the parent broker."}, {},
            {"brokerName", "The name of the parent broker."}, &JXModule::getBrokerName);
  advertise({"getUsage", "Gets the method usage string. This summarises how to use the method."},
            {{"name", "The name of the method."}},
            {"methodUsage", "A string that summarises the usage of the method."},
            &JXModule::getUsage);
  currentMethod_ = gv::MetaMethodBuilder();
}

JXModule::~JXModule() = default;

void JXModule::exit() {
  JXModuleCore::exit();
}

std::string JXModule::httpGet() {
  const std::string text = "JXModule::httpGet not implemented";
  if (category.isEnabled(gv::log::Level::Error))
    gv::log::write(gv::log::Level::Error, category, "httpGet", "", 0, text);
  return text;
}

void JXModule::init() {}

bool JXModule::wait(const int& id, const int& timeoutPeriod) {
  return d->wait(id, timeoutPeriod);
}

bool JXModule::isRunning(const int& id) {
  return d->isRunning(id);
}

void JXModule::stop(const int& id) {
  d->stop(id);
}

bool JXModule::isStopRequired(const int& id) {
  return d->isStopRequired(id == -1 ? getMethodID() : id);
}

int JXModule::getMethodID() {
  return static_cast<int>(d->getMethodID());
}

bool JXModule::isPCalled() {
  return d->isPCalled();
}

}  // namespace JX
