#include <gvtype/dynamicobject.h>

#include <array>
#include <optional>
#include <stdexcept>
#include <utility>

#include <gv/eventloop.h>
#include <gv/log.h>
#include <gvtype/callcontext.h>
#include <gvtype/callgate.h>
#include <gvtype/metaobjectdescription.h>

#include "membercheck.h"
#include "membertable.h"
#include "propertytable.h"
#include "serialqueue.h"
#include "signaltable.h"

namespace gv {
namespace {

/// The arguments behind an empty slot for the instance, as every method takes them.
GenericFunctionParameters behindInstance(std::span<const AnyReference> arguments) {
  GenericFunctionParameters slots;
  slots.reserve(arguments.size() + 1);
  slots.emplace_back();
  slots.insert(slots.end(), arguments.begin(), arguments.end());
  return slots;
}

}  // namespace

struct DynamicObject::Private {
  explicit Private(DynamicObject* object)
      : ownView(getDynamicTypeInterface(), object),
        members([object] { return builtinMethods(object); }) {}

  static std::vector<Method> builtinMethods(DynamicObject* object);

  GenericObject ownView;
  /// Both constant once the object is published; the queue is set for the single-threaded model.
  GenericObject* manageable = &ownView;
  std::shared_ptr<SerialQueue> serial;
  /// Whether it has this class's own metaCall for sure, which what derives from it may replace.
  /// Constant once the object is published.
  bool isPlain = false;

  MemberTable members;
  SignalTable signals;
  PropertyTable properties;
};

DynamicObject::DynamicObject() : p_(std::make_unique<Private>(this)) {}

DynamicObject::~DynamicObject() = default;

std::vector<Method> DynamicObject::Private::builtinMethods(DynamicObject* object) {
  std::vector<Method> methods;
  const auto add = [&methods](BuiltinMethod id, const char* name, auto callable) {
    AnyFunction function = AnyFunction::from(std::move(callable)).withInstance();
    MetaMethodBuilder builder;
    builder.setUid(static_cast<unsigned>(id));
    builder.setName(name);
    builder.setReturnSignature(function.returnSignature());
    builder.setParametersSignature(function.parametersSignature(true));
    methods.emplace_back(builder.metaMethod(), std::move(function), MetaCallType::Direct);
  };
  // The caller's handle keeps the object alive during the call, here as for any method.
  add(BuiltinMethod::MetaObject, "metaObject",
      [object] { return describeMetaObject(object->metaObject()); });
  add(BuiltinMethod::Property, "property", [object](const std::string& name) {
    return object->metaProperty({}, object->metaObject().propertyNamed(name).uid())
        .then([](const Future<AnyReference>& got) { return got.value().to<AnyValue>(); },
              FutureCallbackType::Sync);
  });
  add(BuiltinMethod::SetProperty, "setProperty",
      [object](const std::string& name, const AnyValue& value) {
        return object->metaSetProperty({}, object->metaObject().propertyNamed(name).uid(),
                                       value.asReference());
      });
  add(BuiltinMethod::Properties, "properties", [object] {
    std::vector<std::string> names;
    for (const auto& [uid, property] : object->metaObject().propertyMap())
      names.push_back(property.name());
    return names;
  });
  add(BuiltinMethod::Figures, "figures", []() -> AnyValue {
    throw std::runtime_error("figures are a session's: only an object elsewhere has one to ask");
  });
  return methods;
}

const MetaObject& DynamicObject::metaObject() const {
  return p_->members.current().metaObject;
}

const AnyFunction* DynamicObject::method(unsigned id) const {
  const Method* method = p_->members.current().find(id);
  return method ? &method->function : nullptr;
}

unsigned DynamicObject::addMethod(MetaMethodBuilder method, AnyFunction function,
                                  MetaCallType callType) {
  const MetaMethod& described = method.metaMethod();
  const std::string& name = described.name();
  checkMemberName("method", name);
  checkParameters(name, described.parametersSignature().toString());
  checkType(name, described.returnSignature().toString());
  if (function && !function.hasInstance_)
    throw std::runtime_error("the function of the method '" + name +
                             "' must be one that takes the instance first");
  return p_->members.addMethod(std::move(method), std::move(function), callType);
}

unsigned DynamicObject::addSignal(const std::string& name,
                                  std::vector<const TypeInterface*> parameters) {
  checkMemberName("signal", name);
  std::string signature = "(";
  for (const TypeInterface* type : parameters) appendSignature(signature, type);
  Signature checked(signature + ")");  // what fails leaves nothing behind
  const unsigned uid = p_->members.takeId();
  p_->signals.add(uid, name, std::move(parameters));
  p_->members.addSignal(MetaSignal(uid, name, std::move(checked)));
  return uid;
}

unsigned DynamicObject::addProperty(const std::string& name, const AnyReference& initial) {
  checkMemberName("property", name);
  const TypeInterface* type = initial.type();
  if (!type) throw std::runtime_error("the property '" + name + "' needs a first value");
  std::string signature;
  appendSignature(signature, type);
  Signature checked(signature);                // what fails leaves nothing behind
  AnyValue value = AnyValue::copyOf(initial);  // holds a dynamic one as such
  const unsigned uid = p_->members.takeId();
  p_->signals.add(uid, name, {type});
  p_->properties.add(uid, name, std::move(value));
  p_->members.addProperty(MetaProperty(uid, name, std::move(checked)));
  return uid;
}

void DynamicObject::setDescription(const std::string& text) {
  p_->members.setDescription(text);
}

void DynamicObject::setPlain() {
  p_->isPlain = true;
}

GenericObject* DynamicObject::manageable() const {
  return p_->manageable;
}

void DynamicObject::setManageable(GenericObject* manageable) {
  p_->manageable = manageable;
}

void DynamicObject::setThreadingModel(ObjectThreadingModel model) {
  p_->serial = model == ObjectThreadingModel::SingleThread
                   ? std::make_shared<SerialQueue>(getEventLoop())
                   : nullptr;
}

ObjectThreadingModel DynamicObject::threadingModel() const {
  return p_->serial ? ObjectThreadingModel::SingleThread : ObjectThreadingModel::MultiThread;
}

void DynamicObject::setMetaObject(const MetaObject& metaObject) {
  p_->members.replace(metaObject);
}

bool DynamicObject::callNow(unsigned id, std::span<const AnyReference> arguments,
                            const TypeInterface* resultType, void* result) {
  if (!p_->isPlain || p_->serial) return false;
  const Method* method = p_->members.current().find(id);
  if (!method || !method->isDirect) return false;
  const TypeInterface* returned = method->function.returnType();
  if (resultType && !sameType(resultType, returned)) return false;
  const bool hasPlace = resultType || returned->kind == TypeKind::Void;
  try {
    if (hasPlace && method->function.invokeExactly(arguments, result)) return true;
    method->function.callInto(behindInstance(arguments), result);
  } catch (...) {
    throw FutureException(FutureException::State::UserError, detail::currentError().text);
  }
  return true;
}

bool DynamicObject::callElsewhere(unsigned, const GenericFunctionParameters&,
                                  std::unique_ptr<ResultSink>&) {
  return false;
}

Future<AnyReference> DynamicObject::metaCall(Object<Empty> context, unsigned id,
                                             const GenericFunctionParameters& arguments,
                                             MetaCallType callType, Signature) {
  const Method* method = p_->members.current().find(id);
  if (!method)
    return makeFailedFuture<AnyReference>("the object has no method with id " + std::to_string(id));
  const GenericFunctionParameters withInstance = behindInstance(arguments);
  const unsigned caller = 0;
  // A method of a single-threaded object that calls its own object would wait for itself. Direct,
  // whatever the method is advertised as: the pool would run it beside the caller.
  const bool isInside = p_->serial && callType != MetaCallType::Queued && p_->serial->isCurrent();
  if (!p_->serial || isInside || id <= MetaObject::maxBuiltinId)
    return gv::metaCall(getEventLoop(), ObjectThreadingModel::MultiThread, method->callType,
                        isInside ? MetaCallType::Direct : callType, context, id, method->function,
                        withInstance, caller);
  Promise<AnyReference> promise;
  const CallGate* gate = CallGateScope::take();
  try {
    p_->serial->post([=, copies = withInstance.copy(), parent = CallContext::current(),
                      kept = gate ? std::optional(*gate) : std::nullopt] {
      const CallContextScope scope(parent);
      try {
        if (kept) kept->pass();
      } catch (const std::exception& refusal) {
        return promise.setError(refusal.what());
      }
      const auto result =
          gv::metaCall(nullptr, ObjectThreadingModel::SingleThread, method->callType,
                       MetaCallType::Direct, context, id, method->function, copies, caller);
      if (result.hasError())
        promise.setError(result.error(), result.errorState());
      else
        promise.setValue(result.value());
    });
  } catch (...) {
    promise.setError(detail::currentError().text, FutureException::State::NotSent);
  }
  return promise.future();
}

void DynamicObject::metaPost(Object<Empty> context, unsigned id,
                             const GenericFunctionParameters& arguments) {
  if (!p_->signals.contains(id)) {
    metaCall(std::move(context), id, arguments, MetaCallType::Queued, {});
    return;
  }
  const auto logFailure = [] {
    GV_LOG(log::Level::Error, "gv.signal", "metaPost", detail::currentError().text);
  };
  try {
    auto emission = [this, context, id, copies = arguments.copy(), logFailure] {
      try {
        emitSignal(id, copies);
      } catch (...) {
        logFailure();
      }
    };
    if (p_->serial)
      p_->serial->post(std::move(emission));
    else
      getEventLoop()->post(std::move(emission));
  } catch (...) {  // arguments that cannot be copied, or a forked child
    logFailure();
  }
}

Future<SignalLink> DynamicObject::metaConnect(Object<Empty>, unsigned id, AnyFunction handler,
                                              MetaCallType callType) {
  try {
    return makeReadyFuture(p_->signals.connect(id, std::move(handler), callType));
  } catch (const std::runtime_error& error) {
    return makeFailedFuture<SignalLink>(error.what());
  }
}

Future<void> DynamicObject::metaDisconnect(Object<Empty>, SignalLink link) {
  return p_->signals.disconnect(link);
}

Future<AnyReference> DynamicObject::metaProperty(Object<Empty>, unsigned id) {
  try {
    return makeReadyFuture(p_->properties.value(id));
  } catch (const std::runtime_error& error) {
    return makeFailedFuture<AnyReference>(error.what());
  }
}

Future<void> DynamicObject::metaSetProperty(Object<Empty>, unsigned id, const AnyReference& value) {
  try {
    const std::array placed = {p_->properties.set(id, value)};
    emitSignal(id, placed);
    return makeReadyFuture();
  } catch (...) {  // also of copying the user's value
    return makeFailedFuture<void>(detail::currentError().text);
  }
}

void DynamicObject::emitSignal(unsigned id, std::span<const AnyReference> arguments) {
  p_->signals.emit(id, arguments);
}

}  // namespace gv
