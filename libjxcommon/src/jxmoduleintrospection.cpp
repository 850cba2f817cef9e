#include <gv/log.h>
#include <jxcommon/jxmethodinfo.h>
#include <jxcommon/jxmodulecore.h>
#include <jxcommon/jxmoduleinfo.h>
#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>

#include <algorithm>

#include "jxmodulecore_p.h"

namespace JX {
namespace {

using gv::log::Level;

constexpr const char* file = "../libjxcommon/src/jxmodulecore";
constexpr int unknownMethodLine = 416;

const gv::log::Category& category = gv::log::category("jxcommon.jxmodulecore");

void log(Level level, const std::string& operation, const std::string& text) {
  if (category.isEnabled(level)) gv::log::write(level, category, operation, "", 0, text);
}

/// Logs that there is no such operation any more; returns the text.
std::string notImplemented(const std::string& operation, Level level = Level::Error) {
  const std::string text = "JXModuleCore::" + operation + " not implemented";
  log(level, operation, text);
  return text;
}

void deprecated(const std::string& operation, const std::string& replacement) {
  log(Level::Warning, operation, "DEPRECATED 1/2011: " + operation + ", please use " + replacement);
}

}  // namespace

// ---- What the module tells of itself

std::vector<std::string> JXModuleCore::getMethodList() {
  std::vector<std::string> names;
  for (const auto& [id, method] : metaObject().methodMap())
    if (std::find(names.begin(), names.end(), method.name()) == names.end())
      names.push_back(method.name());
  return names;
}

JXValue JXModuleCore::getMethodHelp(const std::string& name) {
  const auto found = metaObject().findMethod(name);
  if (found.empty())
    throw JXError(d->name, "getMethodHelp", "ERROR: unknown method: '" + name + "'", file,
                  unknownMethodLine);
  const gv::MetaMethod& method = found.front();
  JXValue parameters;
  parameters.arraySetSize(0);
  for (const auto& parameter : method.parameters())
    parameters.arrayPush(std::vector<std::string>{parameter.name(), parameter.description()});
  JXValue help;
  help.arrayPush(method.name());
  help.arrayPush(method.description());
  help.arrayPush(parameters);
  help.arrayPush("");
  help.arrayPush(method.returnDescription());
  return help;
}

std::string JXModuleCore::version() {
  return "2.1.4";
}

bool JXModuleCore::ping() {
  return true;
}

// ---- Kept for code that was written against them

bool JXModuleCore::execute(const std::string&, const JXValue&, JXValue&) {
  notImplemented("execute");
  return false;
}

std::string JXModuleCore::httpGet() {
  return notImplemented("httpGet");
}

void JXModuleCore::setModuleID(int) {
  notImplemented("setModuleID");
}

int JXModuleCore::getModuleID() {
  notImplemented("getModuleID");
  return -1;
}

JXModuleCore::ModuleType JXModuleCore::getModuleType() {
  notImplemented("getModuleType");
  return MODULE_TYPE_UNDEFINED;
}

void JXModuleCore::setModuleType(ModuleType) {
  notImplemented("setModuleType", Level::Verbose);
}

boost::shared_ptr<JXModuleInfo> JXModuleCore::getModuleInfo() {
  notImplemented("getModuleInfo");
  return {};
}

boost::shared_ptr<JXProxy> JXModuleCore::getProxy(const std::string&) {
  notImplemented("getProxy");
  return {};
}

JXMethodInfo* JXModuleCore::getMethodInfo(const std::string&) {
  notImplemented("getMethodInfo");
  return nullptr;
}

JXMethodInfo* JXModuleCore::getMethodInfo(const std::string&, const std::vector<std::string>&) {
  notImplemented("getMethodInfo");
  return nullptr;
}

JXMethodInfo* JXModuleCore::getMethodInfo(const std::string&, const JXValue&) {
  notImplemented("getMethodInfo");
  return nullptr;
}

JXMethodInfo* JXModuleCore::getMethodInfoByNameMember(const std::string&,
                                                      const std::vector<std::string>&) {
  notImplemented("getMethodInfoByNameMember");
  return nullptr;
}

JXMethodInfo* JXModuleCore::getFunctionDesc(const std::string& name) {
  deprecated("getFunctionDesc", "getMethodInfo");
  return getMethodInfo(name);
}

JXMethodInfo* JXModuleCore::getFunctionDesc(const std::string& name,
                                            const std::vector<std::string>& types) {
  deprecated("getFunctionDesc", "getMethodInfo");
  return getMethodInfo(name, types);
}

JXMethodInfo* JXModuleCore::getFunctionDesc(const std::string& name, const JXValue& arguments) {
  deprecated("getFunctionDesc", "getMethodInfo");
  return getMethodInfo(name, arguments);
}

JXMethodInfo* JXModuleCore::getFunctionDescByNameMember(const std::string& name,
                                                        const std::vector<std::string>& types) {
  deprecated("getFunctionDescByNameMember", "getMethodInfoByNameMember");
  return getMethodInfoByNameMember(name, types);
}

std::string JXModuleCore::getUsage(const std::string&) {
  return notImplemented("getUsage");
}

JXValue JXModuleCore::moduleHelp() {
  notImplemented("moduleHelp");
  return {};
}

JXMethodInfo JXModuleCore::getMethodHelpObject(const std::string&) {
  notImplemented("getMethodHelpObject");
  return {};
}

std::string JXModuleCore::getBrokerName() {
  return notImplemented("getBrokerName");
}

}  // namespace JX
