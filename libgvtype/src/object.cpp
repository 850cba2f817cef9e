#include <gvtype/object.h>

#include <stdexcept>

namespace gv {

const GenericObject& Object<Empty>::get() const {
  if (!object_) throw std::runtime_error("This object is null");
  return *object_;
}

Future<AnyReference> GenericObject::metaCall(unsigned id,
                                             const GenericFunctionParameters& arguments,
                                             MetaCallType callType,
                                             const Signature& returnSignature) const {
  return type->metaCall(value, {}, id, arguments, callType, returnSignature);
}

void GenericObject::metaPost(unsigned id, const GenericFunctionParameters& arguments) const {
  type->metaPost(value, {}, id, arguments);
}

unsigned GenericObject::resolveOrThrow(std::string_view nameOrSignature,
                                       std::span<const AnyReference> arguments) const {
  const MetaObject& description = metaObject();
  const int id = description.resolve(nameOrSignature, arguments);
  if (id < 0)
    throw FutureException(FutureException::State::UserError,
                          description.explainNoMatch(std::string(nameOrSignature), arguments));
  return static_cast<unsigned>(id);
}

Future<AnyReference> GenericObject::callLater(const Object<Empty>* context, unsigned id,
                                              std::span<const AnyReference> arguments) const {
  return type->metaCall(value, context ? *context : Object<Empty>(), id,
                        GenericFunctionParameters(arguments.begin(), arguments.end()),
                        MetaCallType::Auto, {});
}

Future<AnyReference> Object<Empty>::metaCall(unsigned id,
                                             const GenericFunctionParameters& arguments,
                                             MetaCallType callType,
                                             const Signature& returnSignature) const {
  const GenericObject& object = get();
  return object.type->metaCall(object.value, *this, id, arguments, callType, returnSignature);
}

void Object<Empty>::callAway(const std::string& nameOrSignature,
                             const GenericFunctionParameters& arguments,
                             std::unique_ptr<ResultSink> sink) const {
  const GenericObject& object = get();
  const int id = object.findMethod(nameOrSignature, arguments);
  if (id < 0) return sink->fail(object.metaObject().explainNoMatch(nameOrSignature, arguments));
  const auto uid = static_cast<unsigned>(id);
  if (!object.type->callElsewhere(object.value, uid, arguments, sink))
    detail::giveTo(metaCall(uid, arguments, MetaCallType::Queued), std::move(sink));
}

Future<AnyReference> Object<Empty>::metaCall(const std::string& nameOrSignature,
                                             const GenericFunctionParameters& arguments,
                                             MetaCallType callType,
                                             const Signature& returnSignature) const {
  const MetaObject& description = get().metaObject();
  const int id = description.findMethod(nameOrSignature, arguments);
  if (id < 0)
    return makeFailedFuture<AnyReference>(description.explainNoMatch(nameOrSignature, arguments));
  return metaCall(static_cast<unsigned>(id), arguments, callType, returnSignature);
}

void Object<Empty>::metaPost(unsigned id, const GenericFunctionParameters& arguments) const {
  const GenericObject& object = get();
  object.type->metaPost(object.value, *this, id, arguments);
}

void Object<Empty>::postByName(const std::string& nameOrSignature,
                               const GenericFunctionParameters& arguments) const {
  const MetaObject& description = get().metaObject();
  const int id = description.findMethod(nameOrSignature, arguments);
  if (id < 0) throw std::runtime_error(description.explainNoMatch(nameOrSignature, arguments));
  metaPost(static_cast<unsigned>(id), arguments);
}

void Object<Empty>::emitByName(const std::string& signal,
                               const GenericFunctionParameters& arguments) const {
  const Object held = *this;  // a handler may drop this handle
  const GenericObject& object = held.get();
  object.type->emitSignal(object.value, object.metaObject().signalNamed(signal).uid(), arguments);
}

Future<SignalLink> Object<Empty>::metaConnect(const std::string& signal, AnyFunction handler,
                                              MetaCallType callType) const {
  const GenericObject& object = get();
  unsigned id = 0;
  try {
    id = object.metaObject().signalNamed(signal).uid();
  } catch (const std::runtime_error& error) {
    return makeFailedFuture<SignalLink>(error.what());
  }
  return object.type->metaConnect(object.value, *this, id, std::move(handler), callType);
}

Future<void> Object<Empty>::disconnect(SignalLink link) const {
  const GenericObject& object = get();
  return object.type->metaDisconnect(object.value, *this, link);
}

Future<AnyReference> Object<Empty>::metaProperty(const std::string& name) const {
  const GenericObject& object = get();
  unsigned id = 0;
  try {
    id = object.metaObject().propertyNamed(name).uid();
  } catch (const std::runtime_error& error) {
    return makeFailedFuture<AnyReference>(error.what());
  }
  return object.type->metaProperty(object.value, *this, id);
}

Future<void> Object<Empty>::metaSetProperty(const std::string& name,
                                            const AnyReference& value) const {
  const Object held = *this;  // a handler may drop this handle
  const GenericObject& object = held.get();
  unsigned id = 0;
  try {
    id = object.metaObject().propertyNamed(name).uid();
  } catch (const std::runtime_error& error) {
    return makeFailedFuture<void>(error.what());
  }
  return object.type->metaSetProperty(object.value, held, id, value);
}

}  // namespace gv
