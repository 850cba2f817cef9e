#pragma once

#include <string>

#include <gvtype/metacall.h>
#include <gvtype/metaobject.h>

namespace gv {

/// How the framework reaches an object of some kind: a record of functions over its address.
struct ObjectTypeInterface {
  const MetaObject& (*metaObject)(const void* object);
  /// The function behind a method, for decoding arguments straight into its parameter types; null
  /// where the body lives elsewhere or the id is unknown. Borrowed for the object's life.
  const AnyFunction* (*method)(const void* object, unsigned id);
  Future<AnyReference> (*metaCall)(void* object, const Object<Empty>& context, unsigned id,
                                   const GenericFunctionParameters& arguments,
                                   MetaCallType callType, const Signature& returnSignature);
  void (*metaPost)(void* object, const Object<Empty>& context, unsigned id,
                   const GenericFunctionParameters& arguments);
};

/// The record for DynamicObject and what derives from it. Lives to the end of the process.
GVTYPE_API const ObjectTypeInterface* getDynamicTypeInterface();

/// An object as the framework sees it: an address and how to use it. Does not own the object; the
/// handles Object<T> do.
class GVTYPE_API GenericObject {
 public:
  GenericObject(const ObjectTypeInterface* howToUse, void* object)
      : type(howToUse), value(object) {}

  const MetaObject& metaObject() const { return type->metaObject(value); }
  /// As MetaObject::findMethod with arguments.
  int findMethod(const std::string& nameOrSignature, const GenericFunctionParameters& arguments,
                 bool* canCache = nullptr) const {
    return metaObject().findMethod(nameOrSignature, arguments, canCache);
  }

  const ObjectTypeInterface* const type;
  void* const value;
};

}  // namespace gv
