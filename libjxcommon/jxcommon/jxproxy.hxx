#pragma once

// Definitions of the templates of <jxcommon/jxproxy.h>.

#include <exception>
#include <string>
#include <type_traits>

#include <gvtype/metacall.h>
#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>

namespace JX {

namespace detail {

/// The value that stands for an argument of a call: the argument itself, or the text of a character
/// array or pointer.
template <class T>
decltype(auto) callArgument(const T& argument) {
  using Decayed = std::decay_t<T>;
  if constexpr (std::is_pointer_v<Decayed> && std::is_convertible_v<Decayed, const char*>)
    return std::string(argument);
  else
    return (argument);
}

}  // namespace detail

template <class R, class... P>
R JXProxy::call(const std::string& methodName, const P&... arguments) {
  static constexpr const char* file = "../libjxcommon/jxcommon/jxproxy";
  static constexpr int line = 48;
  const gv::Object<gv::Empty> object = object_.lock();
  if (!object.isValid()) throw JXError(moduleName(), methodName, "module destroyed", file, line);
  try {
    const auto resultOf = [&](const auto&... values) {
      return object
          .metaCall(methodName, gv::makeParameters(values...), gv::MetaCallType::Auto,
                    gv::Signature())
          .value(gv::FutureTimeout_Infinite);
    };
    // A text made of an argument lives to the end of this statement: until the result is there.
    const gv::AnyReference result = resultOf(detail::callArgument(arguments)...);
    const gv::Promise<R> promise(gv::FutureCallbackType::Sync);
    gv::handleFuture<R>(result, promise);
    return promise.future().value(gv::FutureTimeout_Infinite);
  } catch (const std::exception& error) {
    throw JXError(moduleName(), methodName, error.what(), file, line);
  }
}

template <class... P>
int JXProxy::pCall(const std::string& methodName, const P&... arguments) {
  // Texts made of arguments live to the end of the call.
  const auto post = [&](const auto&... values) {
    return xMetaPCall(methodName, gv::makeParameters(values...));
  };
  return post(detail::callArgument(arguments)...);
}

}  // namespace JX
