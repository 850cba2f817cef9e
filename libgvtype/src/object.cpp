#include <gvtype/object.h>

#include <stdexcept>

namespace gv {

const GenericObject& Object<Empty>::get() const {
  if (!object_) throw std::runtime_error("This object is null");
  return *object_;
}

Future<AnyReference> Object<Empty>::metaCall(unsigned id,
                                             const GenericFunctionParameters& arguments,
                                             MetaCallType callType,
                                             const Signature& returnSignature) const {
  const GenericObject& object = get();
  return object.type->metaCall(object.value, *this, id, arguments, callType, returnSignature);
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

}  // namespace gv
