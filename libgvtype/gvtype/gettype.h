#pragma once

#include <new>
#include <type_traits>
#include <utility>

#include <gvtype/typeinterface.h>

namespace gv {

/// Describes a C++ type to the run-time type system: `static void describe(TypeInterface&)` sets
/// the kind and the operations of that kind. Specialise it to add a type. A type without
/// specialisation is of kind Unknown: it can be held and passed by reference, but neither converted
/// nor sent.
template <class T>
struct TypeTraits {
  static void describe(TypeInterface& type) { type.kind = TypeKind::Unknown; }
};

template <class T>
const TypeInterface* getType();

namespace detail {

GVTYPE_API char codeOf(const TypeInterface& type);
GVTYPE_API void reportThrow(const std::type_info& type) noexcept;

/// What a destructor throws is logged and dropped: values die where nobody could handle it.
template <class T>
void destroyValue(void* value) {
  if constexpr (std::is_nothrow_destructible_v<T>) {
    static_cast<T*>(value)->~T();
  } else {
    try {
      static_cast<T*>(value)->~T();
    } catch (...) {
      reportThrow(typeid(T));
    }
  }
}

template <class T>
TypeInterface makeType() {
  TypeInterface type{};
  type.info = &typeid(T);
  type.nothrowMove = std::is_void_v<T> || std::is_nothrow_move_constructible_v<T>;
  if constexpr (!std::is_void_v<T>) {
    type.size = sizeof(T);
    type.alignment = alignof(T);
    if constexpr (std::is_default_constructible_v<T>)
      type.construct = [](void* storage) { ::new (storage) T(); };
    if constexpr (std::is_copy_constructible_v<T>)
      type.copy = [](void* storage, const void* from) {
        ::new (storage) T(*static_cast<const T*>(from));
      };
    if constexpr (std::is_move_constructible_v<T>)
      type.move = [](void* storage, void* from) {
        ::new (storage) T(std::move(*static_cast<T*>(from)));
      };
    if constexpr (std::is_copy_assignable_v<T>)
      type.assign = [](void* value, const void* from) {
        *static_cast<T*>(value) = *static_cast<const T*>(from);
      };
    if constexpr (std::is_destructible_v<T>) type.destroy = &destroyValue<T>;
  }
  TypeTraits<T>::describe(type);
  type.code = codeOf(type);
  return type;
}

}  // namespace detail

/// The description of T, which lives to the end of the process.
template <class T>
const TypeInterface* getType() {
  static const TypeInterface type = detail::makeType<T>();
  return &type;
}

}  // namespace gv
