#pragma once

#include <concepts>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include <gvtype/anyvalue.h>
#include <gvtype/buffer.h>

// Descriptions of the standard types: scalars, enumerations (as their integers), strings, raw
// bytes, lists, maps, tuples, optionals and dynamic values.

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

template <class T>
requires std::is_enum_v<T>
struct TypeTraits<T> : TypeTraits<std::underlying_type_t<T>> {
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

template <class T>
struct TypeTraits<std::optional<T>> {
  using Optional = std::optional<T>;

  static void describe(TypeInterface& type) {
    type.kind = TypeKind::Optional;
    static const OptionalOps ops = {
        .elementType = [] { return getType<T>(); },
        .content =
            [](const void* optional) {
              const auto& content = *static_cast<const Optional*>(optional);
              return content ? AnyReference::from(*content) : AnyReference();
            },
        .reset = [](void* optional) { static_cast<Optional*>(optional)->reset(); },
        .emplace =
            [](void* optional) {
              return AnyReference::from(static_cast<Optional*>(optional)->emplace());
            },
    };
    type.optional = &ops;
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
    type.map = &ops;
    type.memberType = [](std::size_t index) {
      return index == 0 ? getType<Key>() : getType<Value>();
    };
    type.memberCount = 2;
  }
};

/// A value of a fixed number of members; `Access::at<I>(value)` gives the one at I.
template <class Value, class Access, class Indices>
struct TupleTraits;
template <class Value, class Access, std::size_t... I>
struct TupleTraits<Value, Access, std::index_sequence<I...>> {
  template <std::size_t J>
  using Member =
      std::remove_cvref_t<decltype(Access::template at<J>(std::declval<const Value&>()))>;

  static void describe(TypeInterface& type) {
    type.kind = TypeKind::Tuple;
    static const TupleOps ops = {
        .size = [](const void*) { return sizeof...(I); },
        .member =
            [](const void* tuple, [[maybe_unused]] std::size_t index) {
              [[maybe_unused]] const auto& value = *static_cast<const Value*>(tuple);
              AnyReference found;
              static_cast<void>(
                  ((index == I &&
                    (found = AnyReference::from(Access::template at<I>(value)), true)) ||
                   ...));
              return found;
            },
    };
    type.tuple = &ops;
    type.memberType = []([[maybe_unused]] std::size_t index) {
      const TypeInterface* found = nullptr;
      static_cast<void>(((index == I && (found = getType<Member<I>>())) || ...));
      return found;
    };
    type.memberCount = sizeof...(I);
  }
};

struct StandardAccess {
  template <std::size_t I, class Tuple>
  static const auto& at(const Tuple& tuple) {
    return std::get<I>(tuple);
  }
};

}  // namespace detail

template <class K, class V, class C, class A>
struct TypeTraits<std::map<K, V, C, A>> : detail::MapTraits<std::map<K, V, C, A>> {};
template <class K, class V, class H, class E, class A>
struct TypeTraits<std::unordered_map<K, V, H, E, A>>
    : detail::MapTraits<std::unordered_map<K, V, H, E, A>> {};
template <class... T>
struct TypeTraits<std::tuple<T...>>
    : detail::TupleTraits<std::tuple<T...>, detail::StandardAccess, std::index_sequence_for<T...>> {
};
template <class A, class B>
struct TypeTraits<std::pair<A, B>>
    : detail::TupleTraits<std::pair<A, B>, detail::StandardAccess, std::index_sequence_for<A, B>> {
};

}  // namespace gv
