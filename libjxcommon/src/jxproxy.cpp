#include <jxcommon/jxproxy.h>

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
// Those of a posted one.
constexpr int postLockLine = 339;
constexpr int noMatchLine = 355;
constexpr int postLine = 371;
constexpr int postedCallLine = 377;

const gv::log::Category& category = gv::log::category("jxcommon.jxproxy");
// A category of its own for one record, as its readers filter it.
const gv::log::Category& capitalCategory = gv::log::category("jxcommon.JXProxy");

void log(const gv::log::Category& where, Level level, const std::string& text) {
  if (where.isEnabled(level)) gv::log::write(level, where, "JXProxy", "", 0, text);
}

[[noreturn]] void failToBind(const std::string& description, int line) {
  throw JXError("JXProxy", "JXProxy", description, file, line);
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
  log(category, Level::Warning, "Entering WTFBBQ JXProxy constructor.");
  _p->moduleName = moduleName;
  bind(broker, "");
}

JXProxy::JXProxy(const std::string& moduleName, const std::string& ip, int port, int, int)
    : _p(std::make_unique<JXProxyPrivate>()) {
  log(category, Level::Warning,
      "JXProxy(ModuleName, IP, Port) is DEPRECATED. Create a broker yourself and ask it for a "
      "proxy.");
  _p->moduleName = moduleName;
  bind(JXBroker::createBroker(moduleName, "", 0, ip, port, 0, "", true),
       " (" + ip + ":" + std::to_string(port) + ")");
}

JXProxy::JXProxy(const std::string& moduleName, int, int) : _p(std::make_unique<JXProxyPrivate>()) {
  _p->moduleName = moduleName;
  log(capitalCategory, Level::Error, "What do you want to achieve? Please specify a broker");
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
  const auto fail = [&](const std::string& description, int line) {
    throw JXError(_p->moduleName, methodName, description, file, line);
  };
  const gv::Object<gv::Empty> object = object_.lock();
  if (!object.isValid()) fail("module destroyed", lockLine);
  gv::GenericFunctionParameters arguments;  // into `params`, which outlives the call
  const int count = params.getSize();
  for (int i = 0; i < count; ++i) arguments.push_back(gv::AnyReference::from(params[i]));
  const auto result =
      object.metaCall(methodName, arguments, gv::MetaCallType::Auto, gv::Signature());
  if (result.hasError(gv::FutureTimeout_Infinite)) fail(result.error(), callLine);
  const gv::Promise<JXValue> promise(gv::FutureCallbackType::Sync);
  gv::handleFuture<JXValue>(result.value(), promise);
  const auto converted = promise.future();
  if (converted.hasError(gv::FutureTimeout_Infinite)) fail(converted.error(), convertLine);
  return converted.value();
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
    std::string text = "JXProxy(" + _p->moduleName + ").pcall Can't find single match for " +
                       methodName + "\n  Candidate(s):\n";
    for (const gv::MetaMethod& method :
         description.findMethod(gv::signatureSplit(methodName).first))
      text += "  " + method.toString() + "\n";
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

}  // namespace JX
