#include <jxcommon/jxmodulecore.h>

#include <gv/eventloop.h>
#include <gv/log.h>
#include <gv/os.h>
#include <gvtype/callcontext.h>
#include <jxcommon/jxfunctor.h>
#include <jxerror/jxerror.h>

#include "jxbroker_p.h"
#include "jxmodulecore_p.h"

namespace JX {
namespace {

constexpr const char* file = "../libjxcommon/src/jxmodulecore";
constexpr int bindLine = 492;

// At load, so that tools can list it before any record is written.
[[maybe_unused]] const bool categoryIsRegistered =
    (gv::log::addCategory("jxcommon.jxmodulecore"), true);

gv::GenericFunctionParameters withInstanceSlot(const gv::GenericFunctionParameters& parameters) {
  gv::GenericFunctionParameters arguments;
  arguments.reserve(parameters.size() + 1);
  arguments.emplace_back();
  arguments.insert(arguments.end(), parameters.begin(), parameters.end());
  return arguments;
}

}  // namespace

void catch_call(const boost::shared_ptr<JXModuleCore>&, unsigned methodId,
                const gv::AnyFunction& function, gv::GenericFunctionParameters& parameters,
                const gv::Promise<gv::AnyReference>& promise, bool ownsParameters,
                const gv::Object<gv::Empty>& context, unsigned callerThreadId) {
  gv::AnyReference value;
  try {
    auto arguments = withInstanceSlot(parameters);
    const auto result = gv::metaCall(nullptr, gv::ObjectThreadingModel::MultiThread,
                                     gv::MetaCallType::Direct, gv::MetaCallType::Direct, context,
                                     methodId, function, arguments, callerThreadId);
    if (ownsParameters) {  // copies end before the caller learns that the call has
      arguments.clear();
      parameters.clear();
    }
    value = result.value(gv::FutureTimeout_Infinite);
  } catch (const gv::FutureException& error) {
    return promise.setError(error.what(), error.state());
  } catch (const std::exception& error) {
    return promise.setError(error.what());
  }
  promise.setValue(std::move(value));
}

JXModuleCore::JXModuleCore(boost::shared_ptr<JXBroker> broker, const std::string& name)
    : objectBuilder_(this),
      genericObject_(gv::getDynamicTypeInterface(), static_cast<gv::DynamicObject*>(this)),
      d(std::make_unique<JXModuleCorePrivate>(name, std::move(broker))) {
  setManageable(&genericObject_);
  setThreadingModel(gv::ObjectThreadingModel::MultiThread);
  const auto advertise = [this](const char* method, const char* description, auto member) {
    functionName(method, "JXModule", description);
    objectBuilder_.advertiseMethod(currentMethod_, this, member, gv::MetaCallType::Auto);
  };
  advertise("exit", "Exits and unregisters the module.", &JXModuleCore::exit);
  advertise("__pCall", "Internal function to pCall methods", &JXModuleCore::_pCall);
  advertise("pCall", "Orvex1 pCall method.", &JXModuleCore::pCall);
  currentMethod_ = gv::MetaMethodBuilder();
  d->pCallMethodId = metaObject().findMethod("__pCall").at(0).uid();
}

JXModuleCore::~JXModuleCore() = default;

boost::shared_ptr<JXModuleCore> JXModuleCore::getThis() {
  return shared_from_this();
}

boost::shared_ptr<const JXModuleCore> JXModuleCore::getThis() const {
  return shared_from_this();
}

gv::Object<gv::Empty> JXModuleCore::asObject() {
  return gv::Object<gv::Empty>(
      boost::shared_ptr<gv::GenericObject>(shared_from_this(), &genericObject_));
}

const std::string& JXModuleCore::getName() const {
  return d->name;
}

boost::shared_ptr<JXBroker> JXModuleCore::getParentBroker() const {
  return d->parentBroker;
}

bool JXModuleCore::isModuleStopped() {
  return d->stopped;
}

bool JXModuleCore::isClosing() {
  return false;
}

void JXModuleCore::initModule() {
  if (!d->stopped.exchange(false)) return;
  try {
    const auto self = shared_from_this();
    if (!d->parentBroker)
      throw JXError(d->name, "initModule", "the module was made without a broker", file, __LINE__);
    d->parentBroker->_p->registerModule(self);
  } catch (...) {
    d->stopped = true;  // else its exit() would withdraw a namesake
    throw;
  }
}

void JXModuleCore::exit() {
  // First of all: of two callers, or a caller and the broker's shutdown, one withdraws.
  if (d->stopped.exchange(true)) return;
  d->parentBroker->_p->unregisterModule(*d->parentBroker, d->name);
}

void JXModuleCore::init() {}

gv::Future<gv::AnyReference> JXModuleCore::metaCall(gv::Object<gv::Empty> context,
                                                    unsigned methodId,
                                                    const gv::GenericFunctionParameters& parameters,
                                                    gv::MetaCallType callType, gv::Signature) {
  if (methodId <= gv::MetaObject::maxBuiltinId)
    return DynamicObject::metaCall(std::move(context), methodId, parameters, callType, {});
  const gv::Promise<gv::AnyReference> promise(callType == gv::MetaCallType::Direct
                                                  ? gv::FutureCallbackType::Sync
                                                  : gv::FutureCallbackType::Async);
  // The method may withdraw the module and so drop every other owner.
  const auto self = shared_from_this();
  const gv::AnyFunction* function = method(methodId);
  if (!function) {
    promise.setError("Cant call methodId:" + std::to_string(methodId) + " on module:" + d->name);
    return promise.future();
  }
  const unsigned caller = gv::os::gettid();
  if (callType < gv::MetaCallType::Queued || methodId == d->pCallMethodId) {
    auto borrowed = parameters;
    catch_call(self, methodId, *function, borrowed, promise, false, context, caller);
    return promise.future();
  }
  try {
    gv::getEventLoop()->post([=, function = *function, broker = d->parentBroker,
                              copies = parameters.copy(),
                              served = gv::CallContext::current()]() mutable {
      const gv::CallContextScope scope(served);
      catch_call(self, methodId, function, copies, promise, true, context, caller);
    });
  } catch (...) {  // an argument that has no copy, a loop that has ended
    promise.setError(gv::detail::currentError().text);
  }
  return promise.future();
}

void JXModuleCore::functionName(const std::string& name, const std::string&,
                                const std::string& description, int) {
  currentMethod_ = gv::MetaMethodBuilder();
  currentMethod_.setName(name);
  currentMethod_.setDescription(description);
}

void JXModuleCore::addParam(const std::string& name, const std::string& description) {
  currentMethod_.appendParameter(name, description);
}

void JXModuleCore::setReturn(const std::string&, const std::string& description) {
  currentMethod_.setReturnDescription(description);
}

void JXModuleCore::setModuleDescription(const std::string& description) {
  objectBuilder_.setDescription(description);
}

void JXModuleCore::addMethodExample(const std::string&, const std::string&) {}

void JXModuleCore::addModuleExample(const std::string&, const std::string&) {}

void JXModuleCore::advertise(JXFunctorBase* functor) {
  if (!functor) throw std::runtime_error("there is no functor to bind");
  currentMethod_.setReturnSignature(functor->function.returnSignature());
  currentMethod_.setParametersSignature(functor->function.parametersSignature(true));
  objectBuilder_.xAdvertiseMethod(currentMethod_, functor->function, gv::MetaCallType::Auto);
  functor->function = gv::AnyFunction();
}

void JXModuleCore::bindMethod(const boost::shared_ptr<JXFunctorBase>& functor) {
  try {
    advertise(functor.get());
  } catch (const std::runtime_error& error) {
    throw JXError(d->name, "bindMethod", "In module " + d->name + ", " + error.what(), file,
                  bindLine);
  }
}

void JXModuleCore::bindMethod(const boost::shared_ptr<JXFunctorBase>& functor,
                              const std::string& name, const std::string& moduleName,
                              const std::string& description, const JXMethodInfo&) {
  functionName(name, moduleName, description);
  bindMethod(functor);
}

void JXModuleCore::bindMethodOverload(const boost::shared_ptr<JXFunctorBase>& functor) {
  advertise(functor.get());
}

JXMethodInfo* JXModuleCore::getCurrentMethodDescription() {
  return &d->methodInfo;
}

}  // namespace JX
