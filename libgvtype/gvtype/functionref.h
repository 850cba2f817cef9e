#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace gv {

template <class F>
class FunctionRef;

/// A callable borrowed for the duration of a call: two pointers, no allocation, no ownership.
/// Take it as a parameter only; it dangles as soon as the call that received it returns.
template <class R, class... A>
class FunctionRef<R(A...)> {
 public:
  template <class F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, FunctionRef>) FunctionRef(
      F&& callable)  // NOLINT: implicit on purpose, so that a lambda can be passed as it is
      : object_(const_cast<void*>(static_cast<const void*>(std::addressof(callable)))),
        invoke_([](void* object, A... args) -> R {
          return (*static_cast<std::remove_reference_t<F>*>(object))(std::forward<A>(args)...);
        }) {}

  R operator()(A... args) const { return invoke_(object_, std::forward<A>(args)...); }

 private:
  void* object_;
  R (*invoke_)(void*, A...);
};

}  // namespace gv
