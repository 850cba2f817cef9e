#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gvtype/anyvalue.h>

namespace gv {

/// Lists, maps, tuples and optionals of types that are known by signature only, as they come from
/// another process: each value carries its signature, each element is of the type that the
/// signature says. They convert to and from the C++ types like any other list, map, tuple or
/// optional.
struct ListValue {
  std::string signature = "av";  ///< "aT"
  std::vector<AnyValue> elements;
};

struct MapValue {
  std::string signature = "a{vv}";  ///< "a{KV}"
  std::vector<std::pair<AnyValue, AnyValue>> entries;
};

struct TupleValue {
  std::string signature = "()";  ///< "(..)", of a struct "(..)<Name,field,..>"
  std::vector<AnyValue> members;
};

struct OptionalValue {
  std::string signature = "mv";  ///< "mT"
  std::optional<AnyValue> content;
};

template <>
struct TypeTraits<ListValue> {
  GVTYPE_API static void describe(TypeInterface& type);
};
template <>
struct TypeTraits<MapValue> {
  GVTYPE_API static void describe(TypeInterface& type);
};
template <>
struct TypeTraits<TupleValue> {
  GVTYPE_API static void describe(TypeInterface& type);
};
template <>
struct TypeTraits<OptionalValue> {
  GVTYPE_API static void describe(TypeInterface& type);
};

}  // namespace gv
