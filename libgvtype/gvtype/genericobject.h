#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include <gvtype/metacall.h>
#include <gvtype/metaobject.h>
#include <gvtype/signallink.h>

namespace gv {

/// How the framework reaches an object of some kind: a record of functions over its address. Those
/// that take a context, a handle on the object, keep it alive by that while they need it.
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
  Future<SignalLink> (*metaConnect)(void* object, const Object<Empty>& context, unsigned id,
                                    AnyFunction handler, MetaCallType callType);
  Future<void> (*metaDisconnect)(void* object, const Object<Empty>& context, SignalLink link);
  Future<AnyReference> (*metaProperty)(void* object, const Object<Empty>& context, unsigned id);
  Future<void> (*metaSetProperty)(void* object, const Object<Empty>& context, unsigned id,
                                  const AnyReference& value);
  void (*emitSignal)(void* object, unsigned id, std::span<const AnyReference> arguments);
  /// Runs a method at once in this thread, where an automatic call may and its result is of
  /// `resultType`, and constructs the result in `result`, storage without a value; without a type
  /// the result is dropped. False: nothing has run, metaCall is the way. Throws FutureException
  /// with what the call ended with.
  bool (*callNow)(void* object, unsigned id, std::span<const AnyReference> arguments,
                  const TypeInterface* resultType, void* result);
  /// Calls a method of an object that lives elsewhere: its body never runs in this thread, and
  /// `sink` gets its end. False: the object lives here, metaCall is the way, and `sink` is left.
  bool (*callElsewhere)(void* object, unsigned id, const GenericFunctionParameters& arguments,
                        std::unique_ptr<ResultSink>& sink);
};

/// The record for DynamicObject and what derives from it. Lives to the end of the process.
GVTYPE_API const ObjectTypeInterface* getDynamicTypeInterface();

/// An object as the framework sees it: an address and how to use it. Does not own the object; the
/// handles Object<T> do. Who calls through this keeps the object alive until its calls have ended.
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

  /// Calls a method by id. Fails the future, and does not throw, for what the caller named wrongly.
  Future<AnyReference> metaCall(unsigned id, const GenericFunctionParameters& arguments,
                                MetaCallType callType = MetaCallType::Auto,
                                const Signature& returnSignature = {}) const;
  /// Starts a method, or emits a signal, on the event loop and forgets it.
  void metaPost(unsigned id, const GenericFunctionParameters& arguments) const;

  /// Calls a method, chosen by name or full signature ("twice(i)") and the arguments' types, and
  /// waits for its result without limit; the body may run in this thread. Throws FutureException.
  /// Nothing is allocated where the types match and the method runs in this thread.
  template <class R, class... A>
  R call(std::string_view nameOrSignature, const A&... arguments) const {
    return callNamed<R>(nullptr, nameOrSignature, arguments...);
  }
  /// The same by an id that was looked up before.
  template <class R, class... A>
  R call(unsigned id, const A&... arguments) const {
    return callId<R>(nullptr, id, referencesTo(arguments...));
  }

  const ObjectTypeInterface* const type;
  void* const value;

 private:
  template <class T>
  friend class Object;

  template <class R, class... A>
  R callNamed(const Object<Empty>* context, std::string_view nameOrSignature,
              const A&... arguments) const {
    const auto references = referencesTo(arguments...);
    return callId<R>(context, resolveOrThrow(nameOrSignature, references), references);
  }
  template <class... A>
  static std::array<AnyReference, sizeof...(A)> referencesTo(const A&... arguments) {
    return {AnyReference::from(arguments)...};
  }
  unsigned resolveOrThrow(std::string_view nameOrSignature,
                          std::span<const AnyReference> arguments) const;
  Future<AnyReference> callLater(const Object<Empty>* context, unsigned id,
                                 std::span<const AnyReference> arguments) const;

  template <class R>
  R callId(const Object<Empty>* context, unsigned id,
           std::span<const AnyReference> arguments) const {
    if constexpr (std::is_void_v<R>) {
      if (type->callNow(value, id, arguments, nullptr, nullptr)) return;
    } else {
      union Place {
        Place() {}
        ~Place() {}
        R result;
      } place;
      if (type->callNow(value, id, arguments, getType<R>(), &place)) {
        const detail::DestroyAtEnd<R> guard{&place.result};
        return std::move(place.result);
      }
    }
    const Future<AnyReference> result = callLater(context, id, arguments);
    result.wait();  // this one, and not what follows from it: the thread may help to bring it about
    return detail::convertedResult<R>(result).value();
  }
};

}  // namespace gv
