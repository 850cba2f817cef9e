#include <jxcommon/jxproxy.h>

#include <algorithm>
#include <vector>

#include <gv/log.h>
#include <gvtype/signature.h>
#include <jxcommon/jxbroker.h>
#include <jxcommon/jxmodule.h>
#include <jxerror/jxerror.h>

#include "jxbroker_p.h"
#include "jxproxy_p.h"

namespace JX {
namespace {

using gv::log::Level;

constexpr const char* file = "../libjxcommon/src/jxproxy";
// The positions that the errors of an untyped call name.
constexpr int lockLine = 207;
constexpr int callLine = 219;
constexpr int convertLine = 226;
// That of a notification.
constexpr int notifyLine = 281;
// Those of a posted call.
constexpr int postLockLine = 339;
constexpr int noMatchLine = 355;
constexpr int postLine = 371;
constexpr int postedCallLine = 377;

const gv::log::Category& category = gv::log::category("jxcommon.jxproxy");
// A category of its own for one record, as its readers filter it.
const gv::log::Category& capitalCategory = gv::log::category("jxcommon.JXProxy");

void log(const gv::log::Category& where, Level level, const std::string& function,
         const std::string& text) {
  if (where.isEnabled(level)) gv::log::write(level, where, function, "", 0, text);
}

std::string logMissing(const std::string& function) {
  const std::string text = "JXProxy::" + function + " not implemented";
  log(category, Level::Error, function, text);
  return text;
}

[[noreturn]] void failToBind(const std::string& description, int line) {
  throw JXError("JXProxy", "JXProxy", description, file, line);
}

/// Each element of an array as one argument. Borrowed from `params`. Throws JXError where it is
/// none.
gv::GenericFunctionParameters elementsOf(const JXValue& params) {
  gv::GenericFunctionParameters arguments;
  const int count = params.getSize();
  arguments.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) arguments.push_back(gv::AnyReference::from(params[i]));
  return arguments;
}

/// One line for each method of a name.
std::string candidatesText(const gv::MetaObject& description, const std::string& nameOrSignature) {
  std::string text;
  for (const gv::MetaMethod& method :
       description.findMethod(gv::signatureSplit(nameOrSignature).first))
    text += "  " + method.toString() + "\n";
  return text;
}

/// The result of a call, or the eventual one where that is a future.
template <class R>
R resultOf(const gv::Object<gv::Empty>& object, unsigned methodId,
           const gv::GenericFunctionParameters& arguments, gv::MetaCallType callType) {
  const auto result = object.metaCall(methodId, arguments, callType, gv::Signature());
  const gv::Promise<R> promise(gv::FutureCallbackType::Sync);
  gv::handleFuture<R>(result.value(gv::FutureTimeout_Infinite), promise);
  return promise.future().value(gv::FutureTimeout_Infinite);
}

bool takes(const gv::MetaMethod& method, std::size_t count) {
  const auto parameters = gv::signatureMembers(method.parametersSignature().toString());
  const bool hasTail = !parameters.empty() && parameters.back() == "*";
  return hasTail ? count + 1 >= parameters.size() : count == parameters.size();
}

/// Drops the arguments that the cached method does not take. False where the object has no such
/// method.
bool takeCached(const gv::MetaObject& description, const std::pair<int, int>& cache,
                gv::GenericFunctionParameters& arguments) {
  const int most = static_cast<int>(arguments.size());
  arguments.resize(static_cast<std::size_t>(std::clamp(cache.second, 0, most)));
  const gv::MetaMethod* method = description.method(static_cast<unsigned>(cache.first));
  return method && takes(*method, arguments.size());
}

/// The method that takes all arguments, or else most of the first ones; the rest are dropped.
/// Negative where there is none. Fills the cache where the types alone decided the last choice.
int resolveNotification(const gv::MetaObject& description, const std::string& methodName,
                        gv::GenericFunctionParameters& arguments, std::pair<int, int>* cache) {
  while (true) {
    bool canCache = false;
    const int id = description.findMethod(methodName, arguments, &canCache);
    if (id >= 0 && cache && canCache) *cache = {id, static_cast<int>(arguments.size())};
    if (id >= 0 || arguments.empty()) return id;
    arguments.pop_back();
  }
}

}  // namespace

JXProxy::JXProxy(boost::shared_ptr<JXBroker> broker, const std::string& moduleName, int, int)
    : _p(std::make_unique<JXProxyPrivate>()) {
  _p->moduleName = moduleName;
  bind(broker, "");
}

JXProxy::JXProxy(gv::Object<gv::Empty> object, const std::string& moduleName)
    : _p(std::make_unique<JXProxyPrivate>()) {
  _p->moduleName = moduleName;
  if (!object.isValid()) failToBind("Object is invalid", __LINE__);
  object_ = object;
}

JXProxy::JXProxy(const std::string& moduleName, const std::string&, int,
                 boost::shared_ptr<JXBroker> broker, int, int)
    : _p(std::make_unique<JXProxyPrivate>()) {
  log(category, Level::Warning, "JXProxy", "Entering WTFBBQ JXProxy constructor.");
  _p->moduleName = moduleName;
  bind(broker, "");
}

JXProxy::JXProxy(const std::string& moduleName, const std::string& ip, int port, int, int)
    : _p(std::make_unique<JXProxyPrivate>()) {
  log(category, Level::Warning, "JXProxy",
      "JXProxy(ModuleName, IP, Port) is DEPRECATED. Create a broker yourself and ask it for a "
      "proxy.");
  _p->moduleName = moduleName;
  bind(JXBroker::createBroker(moduleName, "", 0, ip, port, 0, "", true),
       " (" + ip + ":" + std::to_string(port) + ")");
}

JXProxy::JXProxy(const std::string& moduleName, int, int) : _p(std::make_unique<JXProxyPrivate>()) {
  _p->moduleName = moduleName;
  log(capitalCategory, Level::Error, "JXProxy",
      "What do you want to achieve? Please specify a broker");
}

// Unbound by contract: a copy binds to nothing.
JXProxy::JXProxy(const JXProxy& other)
    : boost::enable_shared_from_this<JXProxy>(other), _p(std::make_unique<JXProxyPrivate>()) {}

JXProxy::~JXProxy() = default;

void JXProxy::bind(const boost::shared_ptr<JXBroker>& broker, const std::string& notFoundDetail) {
  if (!broker) failToBind("Broker is invalid", __LINE__);
  _p->broker = broker->getThis();
  const gv::Object<gv::Empty> object = broker->_p->service(_p->moduleName, &_p->isLocal);
  if (!object.isValid())
    failToBind("Can't find service: " + _p->moduleName + notFoundDetail, __LINE__);
  object_ = object;  // weakly: a proxy never keeps its module alive
}

boost::shared_ptr<JXProxy> JXProxy::getThis() {
  return shared_from_this();
}

boost::shared_ptr<const JXProxy> JXProxy::getThis() const {
  return shared_from_this();
}

bool JXProxy::isLocal() {
  return _p->isLocal;
}

std::string JXProxy::moduleName() const {
  return _p->moduleName;
}

boost::shared_ptr<JXBroker> JXProxy::getParentBroker() const {
  return _p->broker.lock();
}

boost::shared_ptr<JXModuleCore> JXProxy::getModuleCore() const {
  const auto broker = _p->broker.lock();
  return broker ? broker->getModuleByName(_p->moduleName) : boost::shared_ptr<JXModuleCore>();
}

boost::shared_ptr<JXModule> JXProxy::getModule() const {
  return boost::dynamic_pointer_cast<JXModule>(getModuleCore());
}

gv::Object<gv::Empty> JXProxy::asObject() {
  gv::Object<gv::Empty> object = object_.lock();
  if (!object.isValid())
    throw std::runtime_error("Failed to lock object for proxy " + _p->moduleName);
  return object;
}

JXValue JXProxy::genericCall(const std::string& methodName, const JXValue& params) {
  const auto failure = [&](const std::string& description, int line) {
    return JXError(_p->moduleName, methodName, description, file, line);
  };
  const auto valueOf = [&](const auto& future, int line) {
    try {
      return future.value(gv::FutureTimeout_Infinite);
    } catch (const gv::FutureException& error) {
      throw failure(error.what(), line);
    }
  };
  const gv::Object<gv::Empty> object = object_.lock();
  if (!object.isValid()) throw failure("module destroyed", lockLine);
  const gv::AnyReference result =
      valueOf(object.metaCall(methodName, elementsOf(params), gv::MetaCallType::Auto), callLine);
  const gv::Promise<JXValue> promise(gv::FutureCallbackType::Sync);
  gv::handleFuture<JXValue>(result, promise);
  return valueOf(promise.future(), convertLine);
}

int JXProxy::genericPCall(const std::string& methodName, const JXValue& params,
                          int (*callback)(const char*, int, const JXValue&), const char*) {
  const auto arguments = elementsOf(params);
  if (callback)
    log(category, Level::Warning, "genericPCall",
        "JXProxy.genericPCall does not implement callbacks.");
  return xMetaPCall(methodName, arguments);
}

int JXProxy::xMetaPCall(const std::string& methodName,
                        const gv::GenericFunctionParameters& parameters) {
  const auto failure = [&](const std::string& text, int line) {
    return JXError(_p->moduleName, methodName, text, file, line);
  };
  const gv::Object<gv::Empty> object = object_.lock();
  if (!object.isValid()) throw failure("module destroyed", postLockLine);
  const gv::MetaObject& description = object.metaObject();
  const int id = description.findMethod(methodName, parameters);
  if (id < 0) {
    const std::string text = "JXProxy(" + _p->moduleName + ").pcall Can't find single match for " +
                             methodName + "\n  Candidate(s):\n" +
                             candidatesText(description, methodName);
    throw failure(text, noMatchLine);
  }
  const auto posting = description.findMethod("__pCall");
  const auto methodId = static_cast<unsigned>(id);
  try {
    if (posting.empty()) {
      resultOf<void>(object, methodId, parameters, gv::MetaCallType::Auto);
      return -1;
    }
    std::vector<gv::AnyValue> arguments;
    arguments.reserve(parameters.size());
    for (const gv::AnyReference& parameter : parameters)
      arguments.push_back(gv::AnyValue::copyOf(parameter));
    return resultOf<int>(object, posting.front().uid(), gv::makeParameters(methodId, arguments),
                         gv::MetaCallType::Direct);
  } catch (...) {  // copies of arguments are foreign code
    throw failure(gv::detail::currentError().text, posting.empty() ? postedCallLine : postLine);
  }
}

int JXProxy::pCallNotify(const std::string& methodName, const std::string& first,
                         const JXValue& second, const JXValue& third, std::pair<int, int>* cache) {
  const auto failure = [&](const std::string& text) {
    return JXError(_p->moduleName, methodName, text, file, notifyLine);
  };
  const gv::Object<gv::Empty> object = object_.lock();
  if (!object.isValid()) throw failure("module destroyed");
  const gv::MetaObject& description = object.metaObject();
  auto arguments = gv::makeParameters(first, second, third);
  const bool isCached = cache && cache->first != 0;
  if (isCached && !takeCached(description, *cache, arguments))
    throw failure("the cache is not of this module, which has no method with id " +
                  std::to_string(cache->first) + " and " + std::to_string(arguments.size()) +
                  " argument(s)");
  const int id =
      isCached ? cache->first : resolveNotification(description, methodName, arguments, cache);
  if (id < 0) {
    log(category, Level::Error, "pCallNotify",
        "pCallNotify can't find method: " + methodName + "\n  the good prototype is void " +
            methodName + "(string, JXValue, string)  candidate(s):\n" +
            candidatesText(description, methodName));
    return -1;
  }
  try {
    object.metaPost(static_cast<unsigned>(id), arguments);
  } catch (const std::exception& error) {  // it cannot be sent
    throw failure(error.what());
  }
  return 0;
}

std::string JXProxy::version() {
  return call<std::string>("version");
}

bool JXProxy::wait(const int& id, const int& timeoutMs) {
  return call<bool>("wait", id, timeoutMs);
}

bool JXProxy::isRunning(const int& id) {
  return call<bool>("isRunning", id);
}

void JXProxy::stop(const int& id) {
  call<void>("stop", id);
}

bool JXProxy::isValid() {
  log(category, Level::Error, "isValid", "JXProxy::isValid always return true");
  return true;
}

int JXProxy::getInfo(JXModuleInfo&) {
  logMissing("getInfo");
  return -1;
}

boost::shared_ptr<JXFunctorBase> JXProxy::getFunctor(const std::string&,
                                                     const std::vector<std::string>&) {
  logMissing("getFunctor");
  return {};
}

std::string JXProxy::remoteBrokerName() {
  return logMissing("remoteBrokerName");
}

void JXProxy::destroyConnection() {}

}  // namespace JX
