#pragma once

#include <memory>
#include <string>
#include <utility>

#include <gvtype/dynamicobject.h>

namespace gv {

/// Advertises methods, signals and properties on a dynamic object, its own or a given one.
///
/// @code
/// DynamicObjectBuilder builder;
/// builder.advertiseMethod("twice", [](int n) { return 2 * n; });
/// Object<Empty> object = builder.object();
/// @endcode
class GVTYPE_API DynamicObjectBuilder {
 public:
  /// Builds an object of its own, which lives as long as this builder or any handle on it.
  DynamicObjectBuilder();
  /// Adds to a given object, which stays the caller's and must outlive the builder.
  explicit DynamicObjectBuilder(DynamicObject* object);

  /// Each advertising operation returns the member's id, and throws std::runtime_error as
  /// DynamicObject's adding operations do: for a name outside the grammar (isValidName) above all.
  template <class F>
  unsigned advertiseMethod(const std::string& name, F callable,
                           MetaCallType callType = MetaCallType::Auto) {
    MetaMethodBuilder method;
    method.setName(name);
    return advertise(method, AnyFunction::from(std::move(callable)), callType);
  }
  /// Advertises a member of `object` under a description; the signatures are the member's.
  template <class T, class Member>
  unsigned advertiseMethod(MetaMethodBuilder& method, T* object, Member member,
                           MetaCallType callType = MetaCallType::Auto) {
    return advertise(method, AnyFunction::from(object, member), callType);
  }
  /// Advertises a function that takes the instance first (AnyFunction::withInstance), or an empty
  /// one, under a complete description.
  unsigned xAdvertiseMethod(const MetaMethodBuilder& method, AnyFunction function,
                            MetaCallType callType = MetaCallType::Auto);

  /// Advertises a signal with parameters of these types; Object<Empty>::emit emits it.
  template <class... P>
  unsigned advertiseSignal(const std::string& name) {
    return object_->addSignal(name, {getType<std::remove_cvref_t<P>>()...});
  }
  /// Advertises a property and, under its name, the signal of its new values. One of type AnyValue
  /// holds values of any type, or none.
  template <class T>
  unsigned advertiseProperty(const std::string& name, const T& initial) {
    return object_->addProperty(name, AnyReference::from(initial));
  }

  void setDescription(const std::string& text);
  /// Whether the object's methods may run side by side; they may unless this says otherwise.
  /// Set it before the object is called.
  void setThreadingModel(ObjectThreadingModel model);

  /// A handle on the object that was built. Throws std::logic_error for a given object, whose owner
  /// makes its handles.
  Object<Empty> object() const;

 private:
  unsigned advertise(MetaMethodBuilder& method, const AnyFunction& function, MetaCallType callType);

  boost::shared_ptr<DynamicObject> own_;  // null where the object was given
  DynamicObject* object_;
};

}  // namespace gv
