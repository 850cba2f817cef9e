#pragma once

#include <gv/future.h>
#include <gvtype/anyfunction.h>

namespace gv {

class EventLoop;

/// How a call reaches the body of a method.
enum class MetaCallType {
  Auto = 0,    ///< as the method's own type and its object's threading model have it
  Direct = 1,  ///< in the calling thread
  Queued = 2   ///< on the event loop
};

/// Whether an object's methods may run side by side.
enum class ObjectThreadingModel {
  SingleThread = 0,  ///< one at a time, in the order of the calls
  MultiThread = 1    ///< on any number of threads
};

/// How a call of type `call` to a method of type `method` is made: Direct or Queued. The call's own
/// wish wins over the method's; without either a call is direct.
GVTYPE_API MetaCallType resolveCallType(MetaCallType method, MetaCallType call);

/// Runs one method: decides direct or queued and runs the function, which takes the instance first:
/// the arguments start with an empty slot for it. The future has the method's result, unflattened
/// (a method's future is its value), or as error text the what() of the exception that ended it
/// ("unknown exception" for what is no std::exception). Does not throw for what the function
/// throws.
///
/// `loop` runs queued calls, whose arguments are copied; null makes every call direct. `context` is
/// kept alive until the call has ended.
GVTYPE_API Future<AnyReference> metaCall(EventLoop* loop, ObjectThreadingModel model,
                                         MetaCallType methodType, MetaCallType callType,
                                         const Object<Empty>& context, unsigned methodId,
                                         const AnyFunction& function,
                                         const GenericFunctionParameters& arguments,
                                         unsigned callerThreadId);

/// Settles `promise` with a call's result converted to R. A result that is itself a future is
/// waited for, without blocking, and its value or error settles the promise. A result that does not
/// convert is an error: "Unable to convert call result to target type: from " source " to " target,
/// or "Return argument conversion error: " and the reason where the types convert but the value
/// does not fit.
template <class R>
void handleFuture(const AnyReference& result, Promise<R> promise);

namespace detail {

/// Converts a call's result into `target` or throws std::runtime_error with the texts above.
GVTYPE_API void convertResult(const AnyReference& result, const TypeInterface* type, void* target);
/// Logs what went wrong while a promise was being settled with a result.
GVTYPE_API void logAdapterFailure(const char* text);

template <class R>
void settleWithResult(const AnyReference& result, const Promise<R>& promise) {
  try {
    if constexpr (std::is_void_v<R>) {
      promise.setValue();
    } else if constexpr (std::is_same_v<R, AnyReference>) {
      promise.setValue(result);
    } else {
      R value{};
      convertResult(result, getType<R>(), &value);
      promise.setValue(std::move(value));
    }
  } catch (const std::exception& error) {
    logAdapterFailure(error.what());
    promise.setError(error.what());
  } catch (...) {
    logAdapterFailure("unknown exception");
    promise.setError("unknown exception");
  }
}

}  // namespace detail

template <class R>
void handleFuture(const AnyReference& result, Promise<R> promise) {
  if (result.isValid() && result.type()->kind == TypeKind::Future) {
    const auto settle = [promise](const FutureOps::Ending& ending) {
      if (ending.value.isValid())
        handleFuture<R>(ending.value, promise);
      else
        promise.setError(ending.error, ending.state);
    };
    try {
      result.type()->future->connect(result.pointer(), settle);
    } catch (const FutureException& error) {  // an empty future
      promise.setError(error.what());
    }
    return;
  }
  detail::settleWithResult(result, promise);
}

namespace detail {

/// The future of a call's result converted to R, as handleFuture converts it.
template <class R>
Future<R> convertedResult(const Future<AnyReference>& result) {
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

template <class R>
struct DestroyAtEnd {
  R* value;
  ~DestroyAtEnd() { value->~R(); }
};

}  // namespace detail
}  // namespace gv
