#pragma once

#include <type_traits>
#include <utility>

#include <gvtype/anyfunction.h>
#include <jxcommon/api.h>
#include <jxcommon/jxvaluetype.h>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

namespace JX {

/// A callable that a module binds as a method. Binding takes the function out: a functor is bound
/// once and is empty afterwards.
class JXCOMMON_API JXFunctorBase {
 public:
  /// `callable` takes the module instance as its first parameter.
  explicit JXFunctorBase(gv::AnyFunction callable = {}) : function(std::move(callable)) {}
  JXFunctorBase(const JXFunctorBase&) = delete;
  JXFunctorBase& operator=(const JXFunctorBase&) = delete;
  virtual ~JXFunctorBase();

  gv::AnyFunction function;
};

/// A functor that calls a member function of `object` or of one of its bases: const or not, & or
/// not, noexcept or not, of any arity. Of an overloaded one the right one is chosen by a cast.
/// Parameters are values or references to const. `object` is borrowed: it must outlive every call,
/// as a module does that binds its own methods.
///
/// @code
/// bindMethod(JX::makeFunctor(this, &Greeter::greet));
/// @endcode
///
/// What cannot be bound does not compile; the compiler says why.
template <class T, class M>
boost::shared_ptr<JXFunctorBase> makeFunctor(T* object, M member) {
  return boost::make_shared<JXFunctorBase>(gv::AnyFunction::from(object, member).withInstance());
}
template <class T, class M>
requires(!std::is_pointer_v<T>) boost::shared_ptr<JXFunctorBase> makeFunctor(const T&, M) {
  static_assert(std::is_pointer_v<T>,
                "the object is borrowed: pass a plain pointer to it, and see that it lives on");
  return {};
}

/// A functor that calls a function, a lambda or a std::function, of any arity. Callers see its own
/// parameters, no instance. It may be called from several threads at once.
template <class F>
boost::shared_ptr<JXFunctorBase> makeFunctor(F callable) {
  static_assert(!std::is_member_pointer_v<F>,
                "a member function needs its object: makeFunctor(object, member)");
  if constexpr (!std::is_member_pointer_v<F>)
    return boost::make_shared<JXFunctorBase>(
        gv::AnyFunction::from(std::move(callable)).withInstance());
}

}  // namespace JX
