#pragma once

#include <concepts>
#include <string_view>
#include <tuple>
#include <utility>

#include <boost/preprocessor/seq/for_each.hpp>
#include <boost/preprocessor/stringize.hpp>
#include <boost/preprocessor/variadic/to_seq.hpp>

#include <gvtype/typetraits.h>

namespace gv {
namespace detail {

/// What GV_STRUCT says of a struct: its annotation, "Point,x,y", and pointers to its fields.
template <class T, class... Field>
struct StructFields {
  using Struct = T;
  static constexpr std::size_t count = sizeof...(Field);
  std::string_view annotation;
  std::tuple<Field...> fields;
};

template <class T, class... Field>
constexpr StructFields<T, Field...> makeStructFields(std::string_view annotation, Field... field) {
  return {annotation, {field...}};
}

/// Found by the struct's own namespace. A struct that derives from a described one is not described
/// by that.
template <class T>
concept DescribedStruct = requires(const T* instance) {
  typename decltype(gvStructFields(instance))::Struct;
  requires std::same_as<typename decltype(gvStructFields(instance))::Struct, T>;
};

template <class T>
struct StructAccess {
  static constexpr auto fields = gvStructFields(static_cast<const T*>(nullptr));
  template <std::size_t I>
  static const auto& at(const T& value) {
    return value.*std::get<I>(fields.fields);
  }
};

}  // namespace detail

template <detail::DescribedStruct T>
struct TypeTraits<T> {
  using Access = detail::StructAccess<T>;

  static void describe(TypeInterface& type) {
    detail::TupleTraits<T, Access, std::make_index_sequence<Access::fields.count>>::describe(type);
    type.annotation = Access::fields.annotation;
  }
};

}  // namespace gv

/// Describes a struct by its public fields, so that it crosses calls as a tuple that knows their
/// names. Stands in the struct's own namespace, right behind it and before its first use as a
/// value:
///
///     struct Point { int x, y; };
///     GV_STRUCT(Point, x, y)
///
/// Its signature is then `(ii)<Point,x,y>`. Takes 1 to 64 fields of any described types, other
/// structs included, and containers of the struct itself: such a struct is held, copied, compared
/// and converted like any other, but its signature, where it meets itself, says `X`, and it is not
/// sent to other processes.
#define GV_STRUCT(Type, ...)                                                                       \
  [[maybe_unused]] constexpr auto gvStructFields(const Type*) {                                    \
    return ::gv::detail::makeStructFields<Type>(                                                   \
        #Type BOOST_PP_SEQ_FOR_EACH(GV_STRUCT_NAME_, , BOOST_PP_VARIADIC_TO_SEQ(__VA_ARGS__))      \
            BOOST_PP_SEQ_FOR_EACH(GV_STRUCT_FIELD_, Type, BOOST_PP_VARIADIC_TO_SEQ(__VA_ARGS__))); \
  }
#define GV_STRUCT_NAME_(r, unused, field) "," BOOST_PP_STRINGIZE(field)
#define GV_STRUCT_FIELD_(r, Type, field) , &Type::field
