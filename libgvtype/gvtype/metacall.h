#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <gv/future.h>
#include <gvtype/anyfunction.h>
#include <gvtype/anyvalue.h>

namespace gv {

class EventLoop;

/// How a call reaches the body of a method.
enum class MetaCallType {
  Auto = 0,    ///< as the method's own type and its object's threading model have it
  Direct = 1,  ///< in the calling thread
  Queued = 2   ///< on the event loop
};

/// Whether an object's methods may run side by side. Handlers of its signals run beside them in
/// either model.
///
/// Within a method of a single-threaded object its other methods run at once when it calls them. It
/// must not wait for a queued call of its own object, nor call another single-threaded object whose
/// method calls back to this one: neither ever ends.
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

/// What the end of a call is given to, once. Callbacks of users may run then.
class GVTYPE_API ResultSink {
 public:
  virtual ~ResultSink();
  /// True where a result is converted to what may be a user's type, by that type's own code.
  virtual bool convertsToUserType() const = 0;
  virtual void settle(const AnyReference& result) = 0;
  /// The same with a value of the sink's own; no future is in it.
  virtual void settle(AnyValue&& result) = 0;
  virtual void fail(const std::string& text,
                    FutureException::State state = FutureException::State::UserError) = 0;
};

/// Settles `promise` with a call's result converted to R. A result that is itself a future is
/// waited for, without blocking, and its value or error settles the promise. A result that does not
/// convert is an error: "Unable to convert call result to target type: from " source " to " target,
/// or "Return argument conversion error: " and the reason where the types convert but the value
/// does not fit. A promise that has ended meanwhile, as by its own cancel action, stays as it is.
template <class R>
void handleFuture(const AnyReference& result, Promise<R> promise);

namespace detail {

/// Converts a call's result into `target` or throws std::runtime_error with the texts above.
GVTYPE_API void convertResult(const AnyReference& result, const TypeInterface* type, void* target);
/// Logs what went wrong while a promise was being settled with a result.
GVTYPE_API void logAdapterFailure(const std::string& text);

/// Both settle a promise that has not ended before, as by its own cancel action.
template <class R>
void failOnce(const Promise<R>& promise, const std::string& text,
              FutureException::State state = FutureException::State::UserError) {
  try {
    promise.setError(text, state);
  } catch (const std::logic_error&) {  // that was its end
  }
}
template <class R, class... Value>
void succeedOnce(const Promise<R>& promise, Value&&... value) {
  try {
    promise.setValue(std::forward<Value>(value)...);
  } catch (const std::logic_error&) {  // that was its end
  } catch (...) {                      // of moving the value or of destroying what was moved
    failOnce(promise, currentError().text);
  }
}

template <class R>
void settleWithResult(const AnyReference& result, const Promise<R>& promise) {
  if constexpr (std::is_void_v<R>) {
    succeedOnce(promise);
  } else if constexpr (std::is_same_v<R, AnyReference>) {
    succeedOnce(promise, result);
  } else {
    std::optional<Owned<R>> made;
    try {
      convertResult(result, getType<R>(), &made.emplace().value);
    } catch (...) {
      const std::string failure = currentError().text;
      logAdapterFailure(failure);
      return failOnce(promise, failure);
    }
    succeedOnce(promise, std::move(made->value));
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
        detail::failOnce(promise, ending.error, ending.state);
    };
    try {
      result.type()->future->connect(result.pointer(), settle);
    } catch (const FutureException& error) {  // an empty future
      detail::failOnce(promise, error.what());
    }
    return;
  }
  detail::settleWithResult(result, promise);
}

namespace detail {

/// The promise of a call's result converted to R, as handleFuture converts it.
template <class R>
class ResultPromise final : public ResultSink {
 public:
  explicit ResultPromise(Promise<R> promise) : promise_(std::move(promise)) {}

  bool convertsToUserType() const override {
    return !std::is_same_v<R, AnyReference> && !std::is_void_v<R> && !std::is_arithmetic_v<R>;
  }
  void settle(const AnyReference& result) override { handleFuture<R>(result, promise_); }
  void settle(AnyValue&& result) override {
    if constexpr (std::is_same_v<R, AnyReference>) {
      auto owned = std::make_shared<AnyValue>(std::move(result));
      const AnyReference value = owned->asReference();
      succeedOnce(promise_, AnyReference(value.type(), value.pointer(), std::move(owned)));
    } else {
      settle(result.asReference());
    }
  }
  void fail(const std::string& text, FutureException::State state) override {
    failOnce(promise_, text, state);
  }

 private:
  const Promise<R> promise_;
};

/// The future of what `start` gives to the sink that it is called with.
template <class R, class Start>
Future<R> futureOfResult(const Start& start) {
  // The caller's callbacks are user code: by default not for the settling thread.
  const Promise<R> promise(FutureCallbackType::Async);
  start(std::make_unique<ResultPromise<R>>(promise));
  return promise.future();
}

/// Gives a future's value or error to `sink`, in the thread that settles it.
GVTYPE_API void giveTo(const Future<AnyReference>& result, std::unique_ptr<ResultSink> sink);

template <class R>
Future<R> convertedResult(const Future<AnyReference>& result) {
  return futureOfResult<R>([&](auto sink) { giveTo(result, std::move(sink)); });
}

template <class R>
struct DestroyAtEnd {
  R* value;
  ~DestroyAtEnd() { destroyValue<R>(value); }
};

}  // namespace detail
}  // namespace gv
