#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include <gvtype/object.h>

namespace gv {

/// An object whose methods, signals and properties are advertised at run time. Base of everything
/// that the framework calls by id; usually made by a DynamicObjectBuilder.
///
/// Members may be advertised while calls run: a call sees those from before or after. Their ids
/// rise from MetaObject::firstOwnId, in one row. Handles share the count that owns the object.
class GVTYPE_API DynamicObject {
 public:
  DynamicObject();
  virtual ~DynamicObject();

  /// Replaces the description of the object's members, for objects whose bodies live elsewhere.
  virtual void setMetaObject(const MetaObject& metaObject);

  /// Calls the method `id`. An unknown id is an error of the future, as is whatever the method
  /// throws. `context` is a handle on this object and keeps it alive during the call.
  virtual Future<AnyReference> metaCall(Object<Empty> context, unsigned id,
                                        const GenericFunctionParameters& arguments,
                                        MetaCallType callType, Signature returnSignature);
  /// Starts the method `id` on the event loop and forgets it: ends in metaCall, queued. Of a
  /// signal: emits it there. Errors are logged or lost; but an object of another process throws
  /// std::runtime_error where the method is unknown or nothing could be sent.
  virtual void metaPost(Object<Empty> context, unsigned id,
                        const GenericFunctionParameters& arguments);

  /// Connects a handler to the signal `id`. It runs in the emitting thread, after the handlers
  /// connected before it; or, Queued, on the event loop, in the order of the emissions. It may
  /// connect, disconnect itself and others, emit, drop the object; what it throws is logged. Its
  /// result is dropped. The future fails for an unknown signal, a wrong number of parameters, and
  /// one to which the signal's values never convert. Of an object in another process it settles
  /// when the owner has connected, and the handler runs on the event loop.
  virtual Future<SignalLink> metaConnect(Object<Empty> context, unsigned id, AnyFunction handler,
                                         MetaCallType callType);
  /// Disconnects a handler. No call of it starts any more; the future settles when none runs, but
  /// for those on the calling thread's own stack. Never blocks. It fails for a link that is not
  /// connected.
  virtual Future<void> metaDisconnect(Object<Empty> context, SignalLink link);

  /// The value of the property `id`.
  virtual Future<AnyReference> metaProperty(Object<Empty> context, unsigned id);
  /// Sets the property `id` to the value converted to its type, then emits its signal in this
  /// thread. Fails the future, and changes nothing, where the value does not convert. Of several
  /// that set at once the signals may come in another order than the values. It also fails where
  /// the value was set but emissions are nested too deep (emitSignal) to tell.
  virtual Future<void> metaSetProperty(Object<Empty> context, unsigned id,
                                       const AnyReference& value);

  DynamicObject(const DynamicObject&) = delete;
  DynamicObject& operator=(const DynamicObject&) = delete;

  /// The description of all members, the framework's own included, as of now: what the reference
  /// refers to does not follow later changes. It is good for the object's life: each description
  /// that was read between two changes is kept until then, so advertise first, then read.
  const MetaObject& metaObject() const;
  /// The function of a method; null for an unknown id. Borrowed for the object's life.
  const AnyFunction* method(unsigned id) const;

  /// Each adding operation returns the member's id. It throws std::runtime_error, and adds nothing,
  /// for a name outside the grammar, signatures that are none of parameters or of a result, and
  /// when the object has MetaObject::mostOwnMembers. Adding is safe from any thread. A method's
  /// `function` takes the instance first, or is empty.
  unsigned addMethod(MetaMethodBuilder method, AnyFunction function, MetaCallType callType);
  unsigned addSignal(const std::string& name, std::vector<const TypeInterface*> parameters);
  /// Adds a property with a signal of its own. Values are of the type of the first one, which is
  /// copied and must have a default value.
  unsigned addProperty(const std::string& name, const AnyReference& initial);
  void setDescription(const std::string& text);

  /// Emits the signal `id`: runs its handlers or queues them. The arguments are converted to the
  /// signal's types. Throws std::runtime_error for an unknown signal, a wrong number of arguments,
  /// one that does not convert, and within 64 handlers on this thread that emit in turn; no handler
  /// runs then. Handlers may drop the object.
  void emitSignal(unsigned id, std::span<const AnyReference> arguments);

  /// As ObjectTypeInterface::callElsewhere. What stands for an object of another process overrides
  /// it beside metaCall.
  virtual bool callElsewhere(unsigned id, const GenericFunctionParameters& arguments,
                             std::unique_ptr<ResultSink>& sink);
  /// As ObjectTypeInterface::callNow.
  bool callNow(unsigned id, std::span<const AnyReference> arguments,
               const TypeInterface* resultType, void* result);

  /// The view of this object that its handles share: its own, or the one set. Not owned.
  GenericObject* manageable() const;
  /// Constant once the object is published.
  void setManageable(GenericObject* manageable);
  /// Constant once the object is published.
  void setThreadingModel(ObjectThreadingModel model);
  ObjectThreadingModel threadingModel() const;

 private:
  friend class DynamicObjectBuilder;

  /// Says that this is no part of a derived object, so that callNow may run its methods.
  void setPlain();

  struct Private;
  std::unique_ptr<Private> p_;
};

/// The framework's own methods of every object.
enum class BuiltinMethod : unsigned {
  MetaObject = 2,   ///< () -> the object's description
  Property = 5,     ///< (name) -> the property's value, dynamic
  SetProperty = 6,  ///< (name, dynamic value) sets a property
  Properties = 7,   ///< () -> the names of all properties, by rising id
  Figures = 9       ///< () -> those of the session that a connection asks; fails within a process
};

}  // namespace gv
