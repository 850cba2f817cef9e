#include <gvtype/dynamicobject.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gv/eventloop.h>
#include <gvtype/metaobjectdescription.h>

#include "serialqueue.h"

namespace gv {
namespace {

struct Method {
  MetaMethod description;
  AnyFunction function;
  MetaCallType callType;
};

/// The methods at one moment. Calls read it without a lock.
struct Snapshot {
  std::vector<Method> methods;  // by ascending id
  MetaObject metaObject;

  const Method* find(unsigned id) const {
    for (std::size_t low = 0, high = methods.size(); low < high;) {
      const std::size_t middle = (low + high) / 2;
      const unsigned uid = methods[middle].description.uid();
      if (uid == id) return &methods[middle];
      (uid < id ? low : high) = uid < id ? middle + 1 : middle;
    }
    return nullptr;
  }
};

MetaMethod describeBuiltin(BuiltinMethod id, const std::string& name, const AnyFunction& function) {
  MetaMethodBuilder builder;
  builder.setUid(static_cast<unsigned>(id));
  builder.setName(name);
  builder.setReturnSignature(function.returnSignature());
  builder.setParametersSignature(function.parametersSignature(true));
  return builder.metaMethod();
}

}  // namespace

struct DynamicObject::Private {
  std::mutex mutex;  // guards what follows, but for `current` and `serial`
  std::vector<Method> methods;
  std::string description;
  unsigned nextId = MetaObject::firstOwnId;
  /// All that were ever read: references into them stay good for the object's life.
  std::vector<std::unique_ptr<const Snapshot>> snapshots;
  GenericObject* manageable = nullptr;

  /// The newest snapshot, null when methods were added since. Atomic: calls read it unlocked.
  std::atomic<const Snapshot*> current{nullptr};
  /// Set for the single-threaded model only; constant once the object is published.
  std::shared_ptr<SerialQueue> serial;

  const Snapshot& snapshot() {
    if (const Snapshot* newest = current.load(std::memory_order_acquire)) return *newest;
    const std::lock_guard lock(mutex);
    if (const Snapshot* newest = current.load(std::memory_order_relaxed)) return *newest;
    std::vector<MetaMethod> descriptions;
    descriptions.reserve(methods.size());
    for (const Method& method : methods) descriptions.push_back(method.description);
    replaceLocked({methods, MetaObject(std::move(descriptions), description)});
    return *snapshots.back();
  }

  void replaceLocked(Snapshot snapshot) {
    snapshots.push_back(std::make_unique<const Snapshot>(std::move(snapshot)));
    current.store(snapshots.back().get(), std::memory_order_release);
  }
};

DynamicObject::DynamicObject() : p_(std::make_unique<Private>()) {
  const auto function =
      AnyFunction::from([this] { return describeMetaObject(metaObject()); }).withInstance();
  p_->methods.push_back({describeBuiltin(BuiltinMethod::MetaObject, "metaObject", function),
                         function, MetaCallType::Direct});
}

DynamicObject::~DynamicObject() = default;

const MetaObject& DynamicObject::metaObject() const {
  return p_->snapshot().metaObject;
}

const AnyFunction* DynamicObject::method(unsigned id) const {
  const Method* method = p_->snapshot().find(id);
  return method ? &method->function : nullptr;
}

unsigned DynamicObject::addMethod(MetaMethodBuilder method, AnyFunction function,
                                  MetaCallType callType) {
  const std::string& name = method.metaMethod().name();
  if (!isValidName(name))
    throw std::runtime_error("a method cannot have the name '" + name +
                             "': names have 1 to 255 bytes, no control characters, no '/', no '(' "
                             "and do not start with a blank");
  const std::lock_guard lock(p_->mutex);
  const unsigned uid = p_->nextId++;
  method.setUid(uid);
  p_->methods.push_back({method.metaMethod(), std::move(function), callType});
  p_->current.store(nullptr, std::memory_order_release);
  return uid;
}

void DynamicObject::setDescription(const std::string& text) {
  const std::lock_guard lock(p_->mutex);
  p_->description = text;
  p_->current.store(nullptr, std::memory_order_release);
}

void DynamicObject::setManageable(GenericObject* manageable) {
  const std::lock_guard lock(p_->mutex);
  p_->manageable = manageable;
}

void DynamicObject::setThreadingModel(ObjectThreadingModel model) {
  p_->serial = model == ObjectThreadingModel::SingleThread
                   ? std::make_shared<SerialQueue>(getEventLoop())
                   : nullptr;
}

void DynamicObject::setMetaObject(const MetaObject& metaObject) {
  const std::lock_guard lock(p_->mutex);
  p_->replaceLocked({{}, metaObject});
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
  metaCall(std::move(context), id, arguments, MetaCallType::Queued, {});
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
  };
  return &type;
}

}  // namespace gv
