#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <gvtype/genericobject.h>

namespace gv {

/// The interface of an object of which only the run-time description is known.
struct Empty {};

/// A strong handle on an object, of this process or another: as long as one lives, the object does.
/// Copying is cheap. Calls may be made from any thread. An empty handle is invalid; using it throws
/// std::runtime_error("This object is null").
template <>
class GVTYPE_API Object<Empty> {
 public:
  Object() = default;
  /// A handle that shares the count of `object`, which may be an alias into a user's own object.
  explicit Object(boost::shared_ptr<GenericObject> object) : object_(std::move(object)) {}

  bool isValid() const { return object_ != nullptr; }
  explicit operator bool() const { return isValid(); }
  bool operator==(const Object& other) const { return object_ == other.object_; }

  /// What the object offers now; does not follow what is advertised later. Borrowed: good as long
  /// as the object lives.
  const MetaObject& metaObject() const { return get().metaObject(); }

  /// Calls a method by id. Fails the future, and does not throw, for what the caller named wrongly.
  Future<AnyReference> metaCall(unsigned id, const GenericFunctionParameters& arguments,
                                MetaCallType callType = MetaCallType::Auto,
                                const Signature& returnSignature = {}) const;
  /// Calls a method by name or full signature ("twice(i)"), chosen by the arguments' types.
  Future<AnyReference> metaCall(const std::string& nameOrSignature,
                                const GenericFunctionParameters& arguments,
                                MetaCallType callType = MetaCallType::Auto,
                                const Signature& returnSignature = {}) const;
  /// Starts a method and forgets it: neither its result nor its error comes back. Of a signal:
  /// emits it on the event loop. Throws std::runtime_error where it cannot be sent to the object's
  /// process.
  void metaPost(unsigned id, const GenericFunctionParameters& arguments) const;

  /// Calls a method and waits for its result without limit; the body may run in this thread.
  /// Throws FutureException. See ObjectThreadingModel for calls that would wait for themselves.
  template <class R, class... A>
  R call(std::string_view nameOrSignature, const A&... arguments) const {
    const Object held = *this;  // the body may drop this handle
    return held.get().callNamed<R>(&held, nameOrSignature, arguments...);
  }
  /// Calls a method; its body never runs in this thread.
  template <class R, class... A>
  Future<R> async(const std::string& nameOrSignature, const A&... arguments) const {
    return detail::futureOfResult<R>([&](auto sink) {
      callAway(nameOrSignature, makeParameters(arguments...), std::move(sink));
    });
  }
  /// Starts a method and forgets it. Throws std::runtime_error when no single method matches, and
  /// where it cannot be sent to the object's process.
  template <class... A>
  void post(const std::string& nameOrSignature, const A&... arguments) const {
    postByName(nameOrSignature, makeParameters(arguments...));
  }

  /// Emits a signal of an object of this process: its handlers run in this thread, in the order of
  /// their connection, or are queued. Throws std::runtime_error for an unknown signal or arguments
  /// that are not its; no handler runs then.
  template <class... A>
  void emit(const std::string& signal, const A&... arguments) const {
    emitByName(signal, makeParameters(arguments...));
  }
  /// Connects a callable of as many parameters as the signal has (or with AnyArguments as its
  /// last): see DynamicObject::metaConnect for where it runs, what it may do, and when the future
  /// fails. Those of an object in another process run on the event loop, one emission after the
  /// other; they end with the object's last handle and with the connection.
  template <class F>
  Future<SignalLink> connect(const std::string& signal, F callable,
                             MetaCallType callType = MetaCallType::Auto) const {
    return metaConnect(signal, AnyFunction::from(std::move(callable)), callType);
  }
  /// Disconnects. When the future has settled the callable neither runs nor will run, but for calls
  /// on this thread's own stack. Never blocks. Fails for a link that is not connected.
  Future<void> disconnect(SignalLink link) const;

  /// A property's value, converted. The future fails for an unknown one.
  template <class T>
  Future<T> property(const std::string& name) const {
    return detail::convertedResult<T>(metaProperty(name));
  }
  /// Sets a property, and emits the signal of its name with the new value. The future fails, and
  /// nothing changes, for an unknown one or a value that does not convert to its type.
  template <class T>
  Future<void> setProperty(const std::string& name, const T& value) const {
    return metaSetProperty(name, AnyReference::from(value));
  }

  /// The object behind the handle, null for an empty one.
  const boost::shared_ptr<GenericObject>& share() const { return object_; }

 private:
  friend class WeakObject<Empty>;

  const GenericObject& get() const;
  /// Calls a method whose body is not to run in this thread.
  void callAway(const std::string& nameOrSignature, const GenericFunctionParameters& arguments,
                std::unique_ptr<ResultSink> sink) const;
  void postByName(const std::string& nameOrSignature,
                  const GenericFunctionParameters& arguments) const;
  void emitByName(const std::string& signal, const GenericFunctionParameters& arguments) const;
  Future<SignalLink> metaConnect(const std::string& signal, AnyFunction handler,
                                 MetaCallType callType) const;
  Future<AnyReference> metaProperty(const std::string& name) const;
  Future<void> metaSetProperty(const std::string& name, const AnyReference& value) const;

  boost::shared_ptr<GenericObject> object_;
};

/// A weak handle: expires when the count that it was made from has ended.
template <>
class WeakObject<Empty> {
 public:
  WeakObject() = default;
  WeakObject(const Object<Empty>& object) : object_(object.object_) {}  // NOLINT: a view of it

  /// A strong handle, or an invalid one when the object has gone.
  Object<Empty> lock() const { return Object<Empty>(object_.lock()); }

 private:
  boost::weak_ptr<GenericObject> object_;
};

/// A strong handle on an object of this process whose class is known: T derives from DynamicObject.
/// Shares the count that owns the object, as all handles on it do.
template <class T>
class Object {
 public:
  Object() = default;
  Object(boost::shared_ptr<T> object) : object_(std::move(object)) {}  // NOLINT: the same count
  /// Invalid when the object is no T, or lives in another process.
  explicit Object(const Object<Empty>& object) {
    const auto& shared = object.share();
    if (!shared || shared->type != getDynamicTypeInterface()) return;
    if (T* typed = dynamic_cast<T*>(static_cast<DynamicObject*>(shared->value)))
      object_ = boost::shared_ptr<T>(shared, typed);
  }

  bool isValid() const { return object_ != nullptr; }
  explicit operator bool() const { return isValid(); }
  bool operator==(const Object& other) const { return object_ == other.object_; }

  /// The object, null for an invalid handle. Borrowed.
  T* get() const { return object_.get(); }
  /// Both throw std::runtime_error("This object is null") for an invalid handle.
  T* operator->() const { return &**this; }
  T& operator*() const {
    if (!object_) throw std::runtime_error("This object is null");
    return *object_;
  }

  /// The handle by which the framework calls the object.
  operator Object<Empty>() const {  // NOLINT: every typed handle is one
    if (!object_) return {};
    return Object<Empty>(boost::shared_ptr<GenericObject>(object_, object_->manageable()));
  }

 private:
  friend class WeakObject<T>;

  boost::shared_ptr<T> object_;
};

/// A weak handle: expires when the count that it was made from has ended.
template <class T>
class WeakObject {
 public:
  WeakObject() = default;
  WeakObject(const Object<T>& object) : object_(object.object_) {}  // NOLINT: a view of it

  /// A strong handle, or an invalid one when the object has gone.
  Object<T> lock() const { return Object<T>(object_.lock()); }

 private:
  boost::weak_ptr<T> object_;
};

/// Handles are values of kind Object: signature "o". One on a class converts to Object<Empty>, and
/// back where the object is of that class.
template <class T>
struct TypeTraits<Object<T>> {
  static void describe(TypeInterface& type) {
    type.kind = TypeKind::Object;
    static const ObjectOps ops = {
        .get = [](const void* handle) -> Object<Empty> {
          return *static_cast<const Object<T>*>(handle);
        },
        .set =
            [](void* handle, const Object<Empty>& object) {
              Object<T> typed(object);
              if (object && !typed) return false;
              *static_cast<Object<T>*>(handle) = std::move(typed);
              return true;
            },
    };
    type.object = &ops;
  }
};

}  // namespace gv
