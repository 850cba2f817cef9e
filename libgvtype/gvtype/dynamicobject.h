#pragma once

#include <memory>
#include <string>

#include <gvtype/object.h>

namespace gv {

/// An object whose methods are advertised at run time. Base of everything that the framework calls
/// by id; usually made by a DynamicObjectBuilder.
///
/// Methods may be advertised while calls run: a call sees the methods from before or after. Handles
/// on the object are made from a GenericObject over it; the object must outlive them.
class GVTYPE_API DynamicObject {
 public:
  DynamicObject();
  virtual ~DynamicObject();
  DynamicObject(const DynamicObject&) = delete;
  DynamicObject& operator=(const DynamicObject&) = delete;

  /// The description of all methods, the framework's own included. The reference is good for the
  /// object's life, its content is that of the moment.
  const MetaObject& metaObject() const;
  /// The function of a method; null for an unknown id. Borrowed for the object's life.
  const AnyFunction* method(unsigned id) const;

  /// Adds a method behind `function`, which takes the instance first, and returns its id. Throws
  /// std::runtime_error for a name outside the grammar. Adding is safe from any thread.
  unsigned addMethod(MetaMethodBuilder method, AnyFunction function, MetaCallType callType);
  void setDescription(const std::string& text);

  /// The handle's part through which the framework's own methods reach this object. Not owned.
  void setManageable(GenericObject* manageable);
  /// Constant once the object is published.
  void setThreadingModel(ObjectThreadingModel model);

  /// Replaces the description of the object's methods, for objects whose bodies live elsewhere.
  virtual void setMetaObject(const MetaObject& metaObject);

  /// Calls the method `id`. An unknown id is an error of the future, as is whatever the method
  /// throws. `context` is a handle on this object and keeps it alive during the call.
  virtual Future<AnyReference> metaCall(Object<Empty> context, unsigned id,
                                        const GenericFunctionParameters& arguments,
                                        MetaCallType callType, Signature returnSignature);
  /// Starts the method `id` on the event loop and forgets it: ends in metaCall, queued.
  virtual void metaPost(Object<Empty> context, unsigned id,
                        const GenericFunctionParameters& arguments);

 private:
  struct Private;
  std::unique_ptr<Private> p_;
};

/// The framework's own methods of every object.
enum class BuiltinMethod : unsigned {
  MetaObject = 2  ///< () -> the object's description
};

}  // namespace gv
