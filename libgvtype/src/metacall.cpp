#include <gvtype/metacall.h>

#include <optional>

#include <gv/eventloop.h>
#include <gv/log.h>
#include <gvtype/callcontext.h>
#include <gvtype/callgate.h>
#include <gvtype/conversion.h>
#include <gvtype/object.h>

namespace gv {
namespace {

void runInto(const Promise<AnyReference>& promise, const AnyFunction& function,
             const GenericFunctionParameters& arguments,
             const std::optional<CallGate>& gate = std::nullopt) {
  AnyReference result;
  try {
    if (gate) gate->pass();
    result = function.call(arguments);
  } catch (...) {
    return promise.setError(detail::currentError().text);
  }
  promise.setValue(result);
}

}  // namespace

MetaCallType resolveCallType(MetaCallType method, MetaCallType call) {
  if (call != MetaCallType::Auto) return call;
  return method == MetaCallType::Queued ? MetaCallType::Queued : MetaCallType::Direct;
}

Future<AnyReference> metaCall(EventLoop* loop, ObjectThreadingModel, MetaCallType methodType,
                              MetaCallType callType, const Object<Empty>& context, unsigned,
                              const AnyFunction& function,
                              const GenericFunctionParameters& arguments, unsigned) {
  const CallGate* gate = CallGateScope::take();
  if (!loop || resolveCallType(methodType, callType) == MetaCallType::Direct) {
    Promise<AnyReference> promise;
    runInto(promise, function, arguments);
    return promise.future();
  }
  Promise<AnyReference> promise;
  try {
    loop->post([promise, function, context, copies = arguments.copy(),
                caller = CallContext::current(),
                kept = gate ? std::optional(*gate) : std::nullopt] {
      const CallContextScope scope(caller);
      runInto(promise, function, copies, kept);
    });
  } catch (...) {  // arguments that cannot be copied, or a forked child
    promise.setError(detail::currentError().text, FutureException::State::NotSent);
  }
  return promise.future();
}

ResultSink::~ResultSink() = default;

namespace detail {

void giveTo(const Future<AnyReference>& result, std::unique_ptr<ResultSink> sink) {
  result.connect(
      [sink = std::shared_ptr<ResultSink>(std::move(sink))](const Future<AnyReference>& settled) {
        try {
          sink->settle(settled.value());
        } catch (const FutureException& error) {
          sink->fail(error.what(), error.state());
        } catch (const std::exception& error) {
          sink->fail(error.what());
        }
      },
      FutureCallbackType::Sync);
}

void convertResult(const AnyReference& result, const TypeInterface* type, void* target) {
  const auto unable = [&] {
    return std::runtime_error("Unable to convert call result to target type: from " +
                              typeName(result.type()) + " to " + typeName(type));
  };
  try {
    convertInto(result, type, target);
  } catch (const ConversionError& error) {
    if (error.reason() == ConversionError::Reason::Kind) throw unable();
    throw std::runtime_error(std::string("Return argument conversion error: ") + error.what());
  } catch (const std::exception& error) {
    throw std::runtime_error(std::string("Return argument conversion error: ") + error.what());
  }
}

void logAdapterFailure(const std::string& text) {
  GV_LOG(log::Level::Error, "gv.adapter", "setPromise", text);
}

}  // namespace detail
}  // namespace gv
