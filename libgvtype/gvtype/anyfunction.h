#pragma once

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <gvtype/futuretype.h>
#include <gvtype/genericfunctionparameters.h>
#include <gvtype/signature.h>

namespace gv {

/// The tail of a parameter list: takes whatever was passed. As the last parameter of a function it
/// shows as `*` in the signature.
struct AnyArguments {
  std::vector<AnyValue> args;
};

namespace detail {

/// What a callable takes and gives; of a member function also the class of its objects, const where
/// it leaves them as they are.
template <class O, class R, class... A>
struct CallShape {
  using Object = O;
};

// Of use to the compiler alone, so none is defined. What is noexcept converts to what is not.
template <class R, class... A>
CallShape<void, R, A...> shapeOf(R (*)(A...));
template <class R, class C, class... A>
CallShape<C, R, A...> shapeOf(R (C::*)(A...));
template <class R, class C, class... A>
CallShape<C, R, A...> shapeOf(R (C::*)(A...) &);
template <class R, class C, class... A>
CallShape<const C, R, A...> shapeOf(R (C::*)(A...) const);
template <class R, class C, class... A>
CallShape<const C, R, A...> shapeOf(R (C::*)(A...) const&);
void shapeOf(...);  // none of these

/// Whether a value of the type, or the elements of a container, only point at what others own.
template <class T>
inline constexpr bool isView = std::is_pointer_v<T> || std::is_same_v<T, std::string_view>;
template <class T, class... Rest>
inline constexpr bool isView<std::vector<T, Rest...>> = isView<T>;
template <class K, class V, class... Rest>
inline constexpr bool isView<std::map<K, V, Rest...>> = isView<K> || isView<V>;
template <class T>
inline constexpr bool isView<std::optional<T>> = isView<T>;
template <class T, class U>
inline constexpr bool isView<std::pair<T, U>> = isView<T> || isView<U>;
template <class... T>
inline constexpr bool isView<std::tuple<T...>> = (isView<T> || ...);

}  // namespace detail

/// A callable of any type behind one interface: it knows its signatures, converts the arguments on
/// the way in and returns its result as a reference that shares ownership of it.
///
/// Copies share the callable. Calling from several threads at once is as safe as the callable.
class GVTYPE_API AnyFunction {
 public:
  /// The empty function: calling it is an error.
  AnyFunction() = default;

  /// From a function, a lambda, a std::function, or a member function, which then takes the
  /// instance as its first argument. Parameters may be values or references to const; the last may
  /// be AnyArguments. Null pointers make the empty function, here and below. What cannot be called
  /// this way does not compile; the compiler says why.
  template <class F>
  static AnyFunction from(F callable);
  /// From a member function of an object or of one of its bases. The object must outlive the
  /// function's calls.
  template <class T, class M>
  static AnyFunction from(T* object, M member);

  /// The same function behind one more parameter in front, the instance of the object that it is a
  /// method of, which it ignores. This is the shape of every method of a dynamic object.
  AnyFunction withInstance() const;

  explicit operator bool() const { return body_ != nullptr; }

  /// Calls it. Throws ConversionError where an argument does not convert, std::runtime_error for a
  /// wrong number of arguments or an empty function, and whatever the callable throws.
  AnyReference call(const GenericFunctionParameters& arguments) const;
  /// Calls it and constructs the result in `result`: storage without a value, of the size and
  /// alignment of returnType(). Null: the result is dropped. Nothing is allocated where all types
  /// match. Throws as call() does; nothing is constructed then.
  void callInto(std::span<const AnyReference> arguments, void* result) const;

  /// The type of the result (a future as such); null for the empty function.
  const TypeInterface* returnType() const { return body_ ? body_->returnType : nullptr; }
  /// The signature of the result ("V" for none; that of its value for a future).
  Signature returnSignature() const;
  /// The signature of the parameters as a tuple, "(si)"; without the first, the instance, on
  /// demand.
  Signature parametersSignature(bool dropFirst = false) const;
  /// Types of the parameters, the instance included as a null entry; the tail is not in it.
  std::vector<const TypeInterface*> parameterTypes() const;
  /// The same without the instance. Lives as long as the function or a copy of it.
  std::span<const TypeInterface* const> argumentTypes() const {
    return body_ ? std::span(body_->parameters) : std::span<const TypeInterface* const>();
  }
  bool takesAnyArguments() const { return body_ && body_->hasTail; }

 private:
  /// What is known of the callable, which stands behind it in a BodyOf.
  struct Body {
    const TypeInterface* returnType = nullptr;
    std::vector<const TypeInterface*> parameters;
    bool hasTail = false;
    /// Takes the address of each argument, all of the exact types (the tail is one AnyArguments),
    /// and constructs the result in place; nothing for void.
    void (*invoke)(const Body* self, void* const* arguments, void* result) = nullptr;
  };
  template <class F>
  struct BodyOf : Body {
    explicit BodyOf(F function) : callable(std::move(function)) {}
    mutable F callable;  // its call operator may change it
  };

  template <class R, class... A>
  static constexpr void checkTypes() {
    static_assert(
        ((!std::is_rvalue_reference_v<A> &&
          (!std::is_lvalue_reference_v<A> || std::is_const_v<std::remove_reference_t<A>>)) &&
         ...),
        "parameters must be values or references to const: the caller's values are shared");
    static_assert(((std::is_reference_v<A> || std::is_copy_constructible_v<A>)&&...),
                  "a parameter by value must be copyable: the caller's value is shared");
    static_assert(
        (!detail::isView<std::decay_t<A>> && ... && !detail::isView<std::decay_t<R>>),
        "neither a pointer nor a view of a text can be passed: nobody keeps alive what it "
        "points at; pass the value itself, a text as a std::string");
    static_assert(tailsBeforeLast<A...>() == 0, "AnyArguments must be the last parameter");
  }

  template <class... A>
  static constexpr std::size_t tailsBeforeLast() {
    const std::array<bool, sizeof...(A)> isTail{
        std::is_same_v<std::remove_cvref_t<A>, AnyArguments>...};
    return std::count(isTail.begin(), isTail.end() - (isTail.empty() ? 0 : 1), true);
  }

  template <class Shape, class Callable>
  static constexpr void checkShape() {
    static_assert(!std::is_void_v<Shape>,
                  "a callable must be a function, or callable as a named object that is not "
                  "volatile, with parameters that are all written out");
  }

  /// The call operator takes the arguments as const lvalues of the types A.
  template <class O, class R, class... A, class F>
  static AnyFunction make(detail::CallShape<O, R, A...>, F callable);
  template <class O, class R, class... A, class F>
  static AnyFunction makeUnbound(detail::CallShape<O, R, A...>, F member) {
    using Object = std::remove_const_t<O>;
    return make(detail::CallShape<void, R, const Object&, A...>(),
                [member](const Object& object, const auto&... arguments) -> R {
                  return (const_cast<Object&>(object).*member)(arguments...);
                });
  }

  friend class DynamicObject;

  /// Calls it with the arguments behind the instance where all types match as they are and the
  /// arguments are few: false where not.
  bool invokeExactly(std::span<const AnyReference> arguments, void* result) const;
  void invoke(std::span<const AnyReference> arguments, void* result) const;

  std::shared_ptr<const Body> body_;
  bool hasInstance_ = false;
};

inline bool AnyFunction::invokeExactly(std::span<const AnyReference> arguments,
                                       void* result) const {
  constexpr std::size_t few = 8;
  const Body& body = *body_;
  const std::size_t count = body.parameters.size();
  if (body.hasTail || count > few || arguments.size() != count) return false;
  void* addresses[few];
  for (std::size_t i = 0; i < count; ++i) {
    if (!sameType(arguments[i].type(), body.parameters[i])) return false;
    addresses[i] = arguments[i].pointer();
  }
  body.invoke(&body, addresses, result);
  return true;
}

template <class F>
AnyFunction AnyFunction::from(F callable) {
  if constexpr (std::is_same_v<F, AnyFunction>) {
    return callable;
  } else if constexpr (std::is_pointer_v<F> || std::is_member_pointer_v<F>) {
    using Shape = decltype(detail::shapeOf(callable));
    checkShape<Shape, F>();
    if constexpr (!std::is_void_v<Shape>) {
      if (!callable) return {};
      if constexpr (std::is_pointer_v<F>)
        return make(Shape(), callable);
      else
        return makeUnbound(Shape(), callable);
    }
  } else if constexpr (requires { &F::operator(); }) {
    using Shape = decltype(detail::shapeOf(&F::operator()));
    checkShape<Shape, F>();
    if constexpr (!std::is_void_v<Shape>) return make(Shape(), std::move(callable));
  } else {
    static_assert(
        requires { &F::operator(); },
        "a callable needs exactly one call operator that is no template, so that its "
        "parameter types are known: wrap it in a lambda with the types written out");
  }
}

template <class T, class M>
AnyFunction AnyFunction::from(T* object, M member) {
  constexpr bool isMember = std::is_member_pointer_v<M>;
  static_assert(isMember, "only a member function has an object: leave it out for other callables");
  using Shape = std::conditional_t<isMember, decltype(detail::shapeOf(member)), void>;
  if constexpr (isMember) checkShape<Shape, M>();
  if constexpr (!std::is_void_v<Shape>) {
    using Object = typename Shape::Object;
    constexpr bool isOfObject = std::is_convertible_v<T*, Object*>;
    static_assert(isOfObject,
                  "the member function is of a class that the object does not have as a public "
                  "base, or it changes an object that is const");
    if constexpr (isOfObject) {
      if (!object || !member) return {};
      return make(Shape(), [object, member](const auto&... arguments) -> decltype(auto) {
        return (static_cast<Object*>(object)->*member)(arguments...);
      });
    }
  }
}

template <class O, class R, class... A, class F>
AnyFunction AnyFunction::make(detail::CallShape<O, R, A...>, F callable) {
  checkTypes<R, A...>();
  using Result = std::remove_cvref_t<R>;
  static constexpr std::size_t count = sizeof...(A);
  auto body = std::make_shared<BodyOf<F>>(std::move(callable));
  body->returnType = getType<Result>();
  body->parameters = {getType<std::remove_cvref_t<A>>()...};
  if constexpr (count > 0) {
    using Last = std::tuple_element_t<count - 1, std::tuple<std::remove_cvref_t<A>...>>;
    if constexpr (std::is_same_v<Last, AnyArguments>) {
      body->hasTail = true;
      body->parameters.pop_back();
    }
  }
  body->invoke = [](const Body* self, void* const* arguments, void* result) {
    static_cast<void>(arguments);
    F& function = static_cast<const BodyOf<F>*>(self)->callable;
    [&]<std::size_t... I>(std::index_sequence<I...>) {
      if constexpr (std::is_void_v<Result>) {
        static_cast<void>(result);
        function(*static_cast<const std::remove_cvref_t<A>*>(arguments[I])...);
      } else {
        ::new (result)
            Result(function(*static_cast<const std::remove_cvref_t<A>*>(arguments[I])...));
      }
    }
    (std::index_sequence_for<A...>());
  };
  AnyFunction made;
  made.body_ = std::move(body);
  return made;
}

}  // namespace gv
