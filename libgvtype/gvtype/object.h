#pragma once

#include <string>
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

  /// What the object offers. Borrowed: good as long as the object lives.
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
  /// Starts a method and forgets it: neither its result nor its error comes back.
  void metaPost(unsigned id, const GenericFunctionParameters& arguments) const;

  /// Calls a method and waits for its result without limit; the body may run in this thread.
  /// Throws FutureException.
  template <class R, class... A>
  R call(const std::string& nameOrSignature, const A&... arguments) const {
    return convertedResult<R>(metaCall(nameOrSignature, makeParameters(arguments...))).value();
  }
  /// Calls a method; its body never runs in this thread.
  template <class R, class... A>
  Future<R> async(const std::string& nameOrSignature, const A&... arguments) const {
    return convertedResult<R>(
        metaCall(nameOrSignature, makeParameters(arguments...), MetaCallType::Queued));
  }
  /// Starts a method and forgets it. Throws std::runtime_error when no single method matches.
  template <class... A>
  void post(const std::string& nameOrSignature, const A&... arguments) const {
    postByName(nameOrSignature, makeParameters(arguments...));
  }

  /// The object behind the handle, null for an empty one.
  const boost::shared_ptr<GenericObject>& share() const { return object_; }

 private:
  friend class WeakObject<Empty>;

  const GenericObject& get() const;
  void postByName(const std::string& nameOrSignature,
                  const GenericFunctionParameters& arguments) const;

  template <class R>
  static Future<R> convertedResult(Future<AnyReference> result) {
    // The caller's callbacks are user code: by default not for the settling thread.
    Promise<R> promise(FutureCallbackType::Async);
    result.connect(
        [promise](Future<AnyReference> settled) {
          try {
            handleFuture<R>(settled.value(), promise);
          } catch (const FutureException& error) {
            promise.setError(error.what(), error.state());
          } catch (const std::exception& error) {
            promise.setError(error.what());
          }
        },
        FutureCallbackType::Sync);
    return promise.future();
  }

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

}  // namespace gv
