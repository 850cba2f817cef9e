#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include <gvtype/anyvalue.h>
#include <gvtype/buffer.h>

// Descriptions of the standard types: scalars, strings, raw bytes, lists, maps, tuples and dynamic
// values.

namespace gv {

template <class T>
class Future;
template <class T>
struct TypeTraits<Future<T>>;  // in <gvtype/futuretype.h>

template <>
struct TypeTraits<void> {
  static void describe(TypeInterface& type) { type.kind = TypeKind::Void; }
};

template <>
struct TypeTraits<bool> {
  static void describe(TypeInterface& type) { type.kind = TypeKind::Bool; }
};

template <std::integral T>
struct TypeTraits<T> {
  static void describe(TypeInterface& type) {
    type.kind = TypeKind::Int;
    type.isSigned = std::is_signed_v<T>;
  }
};

template <std::floating_point T>
requires(sizeof(T) <= 8) struct TypeTraits<T> {
  static void describe(TypeInterface& type) { type.kind = TypeKind::Float; }
};

template <>
struct TypeTraits<std::string> {
  GVTYPE_API static void describe(TypeInterface& type);
};
template <>
struct TypeTraits<Buffer> {
  GVTYPE_API static void describe(TypeInterface& type);
};
template <>
struct TypeTraits<AnyValue> {
  GVTYPE_API static void describe(TypeInterface& type);
};

template <class T, class Allocator>
struct TypeTraits<std::vector<T, Allocator>> {
  using List = std::vector<T, Allocator>;

  static void describe(TypeInterface& type) {
    type.kind = TypeKind::List;
    static constexpr bool isBits = std::is_same_v<T, bool>;
    static const ListOps ops = {
        .elementType = [] { return getType<T>(); },
        .size = [](const void* list) { return static_cast<const List*>(list)->size(); },
        .forEach =
            [](const void* list, FunctionRef<void(const AnyReference&)> visit) {
              for (const T& element : *static_cast<const List*>(list))
                visit(AnyReference::from(element));
            },
        .clear = [](void* list) { static_cast<List*>(list)->clear(); },
        .emplace = emplaceOperation<!isBits>(),
        .push =
            [](void* list, const void* element) {
              static_cast<List*>(list)->push_back(*static_cast<const T*>(element));
            },
    };
    type.list = &ops;
  }

 private:
  template <bool hasAddress>
  static auto emplaceOperation() -> AnyReference (*)(void*) {
    if constexpr (hasAddress)
      return
          [](void* list) { return AnyReference::from(static_cast<List*>(list)->emplace_back()); };
    else
      return nullptr;
  }
};

namespace detail {

template <class Map>
struct MapTraits {
  using Key = typename Map::key_type;
  using Value = typename Map::mapped_type;

  static void describe(TypeInterface& type) {
    type.kind = TypeKind::Map;
    static const MapOps ops = {
        .size = [](const void* map) { return static_cast<const Map*>(map)->size(); },
        .forEach =
            [](const void* map, FunctionRef<void(const AnyReference&, const AnyReference&)> visit) {
              for (const auto& [key, value] : *static_cast<const Map*>(map))
                visit(AnyReference::from(key), AnyReference::from(value));
            },
        .clear = [](void* map) { static_cast<Map*>(map)->clear(); },
        .makeKey = [](const void*) { return AnyValue::make(getType<Key>()); },
        .makeValue = [](const void*) { return AnyValue::make(getType<Value>()); },
        .insert =
            [](void* map, AnyValue&& key, AnyValue&& value) {
              static_cast<Map*>(map)->insert_or_assign(
                  std::move(*static_cast<Key*>(key.asReference().pointer())),
                  std::move(*static_cast<Value*>(value.asReference().pointer())));
            },
    };
    static const TypeInterface* const members[] = {getType<Key>(), getType<Value>()};
    type.map = &ops;
    type.memberTypes = members;
    type.memberCount = 2;
  }
};

template <class Tuple>
struct TupleTraits {
  static constexpr std::size_t count = std::tuple_size_v<Tuple>;

  static void describe(TypeInterface& type) {
    type.kind = TypeKind::Tuple;
    static const TupleOps ops = {
        .size = [](const void*) { return count; },
        .member =
            [](const void* tuple, std::size_t index) {
              return member(*static_cast<const Tuple*>(tuple), index,
                            std::make_index_sequence<count>());
            },
    };
    type.tuple = &ops;
    setMembers(type, std::make_index_sequence<count>());
  }

 private:
  template <std::size_t... I>
  static void setMembers(TypeInterface& type, std::index_sequence<I...>) {
    static const std::array<const TypeInterface*, count> members = {
        getType<std::tuple_element_t<I, Tuple>>()...};
    type.memberTypes = members.data();
    type.memberCount = count;
  }
  template <std::size_t... I>
  static AnyReference member(const Tuple& tuple, std::size_t index, std::index_sequence<I...>) {
    AnyReference found;
    static_cast<void>(
        ((index == I && (found = AnyReference::from(std::get<I>(tuple)), true)) || ...));
    return found;
  }
};

}  // namespace detail

template <class K, class V, class C, class A>
struct TypeTraits<std::map<K, V, C, A>> : detail::MapTraits<std::map<K, V, C, A>> {};
template <class K, class V, class H, class E, class A>
struct TypeTraits<std::unordered_map<K, V, H, E, A>>
    : detail::MapTraits<std::unordered_map<K, V, H, E, A>> {};
template <class... T>
struct TypeTraits<std::tuple<T...>> : detail::TupleTraits<std::tuple<T...>> {};
template <class A, class B>
struct TypeTraits<std::pair<A, B>> : detail::TupleTraits<std::pair<A, B>> {};

}  // namespace gv
