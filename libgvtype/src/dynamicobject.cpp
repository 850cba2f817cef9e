#include <gvtype/dynamicobject.h>

#include <array>
#include <atomic>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <typeinfo>
#include <utility>

#include <gv/eventloop.h>
#include <gv/log.h>
#include <gvtype/metaobjectdescription.h>

#include "propertytable.h"
#include "serialqueue.h"
#include "signaltable.h"

namespace gv {
namespace {

struct Method {
  Method(MetaMethod described, AnyFunction body, MetaCallType type)
      : description(std::move(described)),
        function(std::move(body)),
        callType(type),
        isDirect(type != MetaCallType::Queued && function &&
                 function.returnType()->kind != TypeKind::Future) {}

  MetaMethod description;
  AnyFunction function;
  MetaCallType callType;
  /// Whether an automatic call may run it in the calling thread and has its result then.
  bool isDirect;
};

/// The members at one moment. Calls read it without a lock.
struct Snapshot {
  std::vector<const Method*> builtin;
  std::vector<const Method*> own;  // by id, from firstOwnId; null where another member is
  MetaObject metaObject;

  const Method* find(unsigned id) const {
    if (id >= MetaObject::firstOwnId) {
      const std::size_t index = id - MetaObject::firstOwnId;
      return index < own.size() ? own[index] : nullptr;
    }
    for (const Method* method : builtin)
      if (method->description.uid() == id) return method;
    return nullptr;
  }

  void add(const Method& method) {
    const unsigned id = method.description.uid();
    if (id < MetaObject::firstOwnId) return builtin.push_back(&method);
    own.resize(id - MetaObject::firstOwnId + 1);
    own.back() = &method;
  }
};

void checkName(const char* kind, const std::string& name) {
  if (!isValidName(name))
    throw std::runtime_error("a " + std::string(kind) + " cannot have the name '" + name +
                             "': names have 1 to 255 bytes, no control characters, no '/', no '(' "
                             "and do not start with a blank");
}

}  // namespace

struct DynamicObject::Private {
  explicit Private(DynamicObject* object) : ownView(getDynamicTypeInterface(), object) {}

  GenericObject ownView;
  GenericObject* manageable = &ownView;

  std::mutex mutex;            // guards what follows, up to `current`
  std::deque<Method> methods;  // by rising id; constant once in, so that snapshots point at them
  std::vector<MetaSignal> signalDescriptions;
  std::vector<MetaProperty> propertyDescriptions;
  std::string description;
  unsigned nextId = MetaObject::firstOwnId;
  /// All that were ever read: references into them stay good for the object's life.
  std::vector<std::unique_ptr<const Snapshot>> snapshots;

  /// The newest snapshot, null when members were added since. Atomic: calls read it unlocked.
  std::atomic<const Snapshot*> current{nullptr};
  /// Set for the single-threaded model only; constant once the object is published.
  std::shared_ptr<SerialQueue> serial;
  SignalTable signals;
  PropertyTable properties;

  const Snapshot& snapshot() {
    const Snapshot* newest = current.load(std::memory_order_acquire);
    return newest ? *newest : makeSnapshot();
  }

  const Snapshot& makeSnapshot() {
    const std::lock_guard lock(mutex);
    if (const Snapshot* newest = current.load(std::memory_order_relaxed)) return *newest;
    Snapshot made;
    std::vector<MetaMethod> descriptions;
    descriptions.reserve(methods.size());
    for (const Method& method : methods) {
      descriptions.push_back(method.description);
      made.add(method);
    }
    made.metaObject =
        MetaObject(std::move(descriptions), signalDescriptions, propertyDescriptions, description);
    replaceLocked(std::move(made));
    return *snapshots.back();
  }

  void replaceLocked(Snapshot snapshot) {
    snapshots.push_back(std::make_unique<const Snapshot>(std::move(snapshot)));
    current.store(snapshots.back().get(), std::memory_order_release);
  }

  unsigned takeId() {
    const std::lock_guard lock(mutex);
    return nextId++;
  }

  void setChangedLocked() { current.store(nullptr, std::memory_order_release); }
};

DynamicObject::DynamicObject() : p_(std::make_unique<Private>(this)) {
  addBuiltinMethods();
}

DynamicObject::~DynamicObject() = default;

void DynamicObject::addBuiltinMethods() {
  const auto add = [this](BuiltinMethod id, const char* name, auto callable) {
    const AnyFunction function = AnyFunction::from(std::move(callable)).withInstance();
    MetaMethodBuilder builder;
    builder.setUid(static_cast<unsigned>(id));
    builder.setName(name);
    builder.setReturnSignature(function.returnSignature());
    builder.setParametersSignature(function.parametersSignature(true));
    p_->methods.emplace_back(builder.metaMethod(), function, MetaCallType::Direct);
  };
  // The caller's handle keeps the object alive during the call, here as for any method.
  add(BuiltinMethod::MetaObject, "metaObject", [this] { return describeMetaObject(metaObject()); });
  add(BuiltinMethod::Property, "property", [this](const std::string& name) {
    return metaProperty({}, metaObject().propertyNamed(name).uid())
        .then([](const Future<AnyReference>& got) { return AnyValue::copyOf(got.value()); },
              FutureCallbackType::Sync);
  });
  add(BuiltinMethod::SetProperty, "setProperty",
      [this](const std::string& name, const AnyValue& value) {
        return metaSetProperty({}, metaObject().propertyNamed(name).uid(), value.asReference());
      });
  add(BuiltinMethod::Properties, "properties", [this] {
    std::vector<std::string> names;
    for (const auto& [uid, property] : metaObject().propertyMap()) names.push_back(property.name());
    return names;
  });
}

const MetaObject& DynamicObject::metaObject() const {
  return p_->snapshot().metaObject;
}

const AnyFunction* DynamicObject::method(unsigned id) const {
  const Method* method = p_->snapshot().find(id);
  return method ? &method->function : nullptr;
}

unsigned DynamicObject::addMethod(MetaMethodBuilder method, AnyFunction function,
                                  MetaCallType callType) {
  checkName("method", method.metaMethod().name());
  const std::lock_guard lock(p_->mutex);
  const unsigned uid = p_->nextId++;
  method.setUid(uid);
  p_->methods.emplace_back(method.metaMethod(), std::move(function), callType);
  p_->setChangedLocked();
  return uid;
}

unsigned DynamicObject::addSignal(const std::string& name,
                                  std::vector<const TypeInterface*> parameters) {
  checkName("signal", name);
  std::string signature = "(";
  for (const TypeInterface* type : parameters) appendSignature(signature, type);
  signature += ')';
  const unsigned uid = p_->takeId();
  p_->signals.add(uid, name, std::move(parameters));
  const std::lock_guard lock(p_->mutex);
  p_->signalDescriptions.emplace_back(uid, name, signature);
  p_->setChangedLocked();
  return uid;
}

unsigned DynamicObject::addProperty(const std::string& name, AnyValue initial) {
  checkName("property", name);
  const TypeInterface* type = initial.type();
  std::string signature;
  appendSignature(signature, type);
  const unsigned uid = p_->takeId();
  p_->signals.add(uid, name, {type});
  p_->properties.add(uid, name, std::move(initial));
  const std::lock_guard lock(p_->mutex);
  p_->propertyDescriptions.emplace_back(uid, name, signature);
  p_->setChangedLocked();
  return uid;
}

void DynamicObject::setDescription(const std::string& text) {
  const std::lock_guard lock(p_->mutex);
  p_->description = text;
  p_->setChangedLocked();
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

void DynamicObject::setMetaObject(const MetaObject& metaObject) {
  const std::lock_guard lock(p_->mutex);
  p_->replaceLocked({{}, {}, metaObject});
}

bool DynamicObject::callNow(unsigned id, std::span<const AnyReference> arguments,
                            const TypeInterface* resultType, void* result) {
  // What derives from this class may have a metaCall of its own.
  if (typeid(*this) != typeid(DynamicObject) || p_->serial) return false;
  const Method* method = p_->snapshot().find(id);
  if (!method || !method->isDirect) return false;
  if (resultType && !sameType(resultType, method->function.returnType())) return false;
  try {
    method->function.callInto(arguments, resultType, result);
  } catch (const std::exception& error) {
    throw FutureException(FutureException::State::UserError, error.what());
  } catch (...) {
    throw FutureException(FutureException::State::UserError, "unknown exception");
  }
  return true;
}

Future<AnyReference> DynamicObject::metaCall(Object<Empty> context, unsigned id,
                                             const GenericFunctionParameters& arguments,
                                             MetaCallType callType, Signature) {
  const Method* method = p_->snapshot().find(id);
  if (!method)
    return makeFailedFuture<AnyReference>("the object has no method with id " + std::to_string(id));
  GenericFunctionParameters withInstance;
  withInstance.reserve(arguments.size() + 1);
  withInstance.emplace_back();
  withInstance.insert(withInstance.end(), arguments.begin(), arguments.end());
  const unsigned caller = 0;
  // A method of a single-threaded object that calls its own object would wait for itself.
  const bool isInside = p_->serial && callType != MetaCallType::Queued && p_->serial->isCurrent();
  if (!p_->serial || isInside || id <= MetaObject::maxBuiltinId)
    return gv::metaCall(getEventLoop(), ObjectThreadingModel::MultiThread, method->callType,
                        callType, context, id, method->function, withInstance, caller);
  Promise<AnyReference> promise;
  try {
    p_->serial->post([=, copies = withInstance.copy()] {
      const auto result =
          gv::metaCall(nullptr, ObjectThreadingModel::SingleThread, method->callType,
                       MetaCallType::Direct, context, id, method->function, copies, caller);
      if (result.hasError())
        promise.setError(result.error(), result.errorState());
      else
        promise.setValue(result.value());
    });
  } catch (const std::exception& error) {
    promise.setError(error.what(), FutureException::State::NotSent);
  } catch (...) {
    promise.setError("unknown exception", FutureException::State::NotSent);
  }
  return promise.future();
}

void DynamicObject::metaPost(Object<Empty> context, unsigned id,
                             const GenericFunctionParameters& arguments) {
  if (!p_->signals.contains(id)) {
    metaCall(std::move(context), id, arguments, MetaCallType::Queued, {});
    return;
  }
  const auto logFailure = [](const char* text) {
    GV_LOG(log::Level::Error, "gv.signal", "metaPost", text);
  };
  try {
    auto emission = [this, context, id, copies = arguments.copy(), logFailure] {
      try {
        emitSignal(id, copies);
      } catch (const std::exception& error) {
        logFailure(error.what());
      }
    };
    if (p_->serial)
      p_->serial->post(std::move(emission));
    else
      getEventLoop()->post(std::move(emission));
  } catch (const std::exception& error) {  // arguments that cannot be copied, or a forked child
    logFailure(error.what());
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
  } catch (const std::exception& error) {
    return makeFailedFuture<void>(error.what());
  } catch (...) {  // of copying the user's value
    return makeFailedFuture<void>("unknown exception");
  }
}

void DynamicObject::emitSignal(unsigned id, std::span<const AnyReference> arguments) {
  p_->signals.emit(id, arguments);
}

const ObjectTypeInterface* getDynamicTypeInterface() {
  static const ObjectTypeInterface type = {
      .metaObject = [](const void* object) -> const MetaObject& {
        return static_cast<const DynamicObject*>(object)->metaObject();
      },
      .method = [](const void* object,
                   unsigned id) { return static_cast<const DynamicObject*>(object)->method(id); },
      .metaCall =
          [](void* object, const Object<Empty>& context, unsigned id,
             const GenericFunctionParameters& arguments, MetaCallType callType,
             const Signature& returnSignature) {
            return static_cast<DynamicObject*>(object)->metaCall(context, id, arguments, callType,
                                                                 returnSignature);
          },
      .metaPost =
          [](void* object, const Object<Empty>& context, unsigned id,
             const GenericFunctionParameters& arguments) {
            static_cast<DynamicObject*>(object)->metaPost(context, id, arguments);
          },
      .metaConnect =
          [](void* object, const Object<Empty>& context, unsigned id, AnyFunction handler,
             MetaCallType callType) {
            return static_cast<DynamicObject*>(object)->metaConnect(context, id, std::move(handler),
                                                                    callType);
          },
      .metaDisconnect =
          [](void* object, const Object<Empty>& context, SignalLink link) {
            return static_cast<DynamicObject*>(object)->metaDisconnect(context, link);
          },
      .metaProperty =
          [](void* object, const Object<Empty>& context, unsigned id) {
            return static_cast<DynamicObject*>(object)->metaProperty(context, id);
          },
      .metaSetProperty =
          [](void* object, const Object<Empty>& context, unsigned id, const AnyReference& value) {
            return static_cast<DynamicObject*>(object)->metaSetProperty(context, id, value);
          },
      .emitSignal =
          [](void* object, unsigned id, std::span<const AnyReference> arguments) {
            static_cast<DynamicObject*>(object)->emitSignal(id, arguments);
          },
      .callNow =
          [](void* object, unsigned id, std::span<const AnyReference> arguments,
             const TypeInterface* resultType, void* result) {
            return static_cast<DynamicObject*>(object)->callNow(id, arguments, resultType, result);
          },
  };
  return &type;
}

}  // namespace gv
