#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include <gvtype/anyreference.h>

namespace gv {

/// A value of any described type, owned. Copying copies the value; small values live inline.
/// Empty by default; an empty value converts to nothing but a dynamic value and an empty optional.
///
/// What it holds may nest NestingLevel::limit - 1 levels deep, as it adds one: making or copying a
/// deeper one throws ConversionError. A value that was made deeper in place, through asReference(),
/// is destroyed like any other, on any stack.
class GVTYPE_API AnyValue {
 public:
  AnyValue() = default;
  AnyValue(const AnyValue& other);
  AnyValue(AnyValue&& other) noexcept;
  AnyValue& operator=(const AnyValue& other);
  AnyValue& operator=(AnyValue&& other) noexcept;
  ~AnyValue();

  /// Holds a copy of `value`. An AnyValue is copied, not nested.
  template <class T>
  static AnyValue from(T value) {
    if constexpr (std::is_same_v<T, AnyValue>) {
      return value;
    } else {
      AnyValue result;
      result.takeOver(getType<T>(), &value);
      return result;
    }
  }
  static AnyValue from(const char* text) { return from(std::string(text)); }

  /// A copy of what the reference refers to; empty for an invalid one. Throws ConversionError where
  /// the type cannot be copied.
  static AnyValue copyOf(const AnyReference& reference);
  /// A default value of the type. Throws ConversionError where the type has none.
  static AnyValue make(const TypeInterface* type);
  /// A default value of the type that a signature names: the matching C++ type, or a generic list,
  /// map, tuple or optional that carries the signature. `signature` must be one complete,
  /// well-formed type. Throws ConversionError where a type has no value (`X`).
  static AnyValue makeDefault(std::string_view signature);

  bool isValid() const { return type_ != nullptr; }
  const TypeInterface* type() const { return type_; }
  /// How many levels of containers and dynamic values the content has, as of when it was put in.
  int nesting() const { return nesting_; }
  /// Counts the levels anew, after the content was changed in place.
  void updateNesting();
  /// Refers to the value held, which stays this object's. Invalid when empty.
  AnyReference asReference() const { return {type_, const_cast<void*>(storage())}; }
  std::string signature() const { return asReference().signature(); }

  /// Replaces the value by one of `type` that `construct` makes in the memory it is given. Where it
  /// returns false or throws, it made none, and this is empty then. The levels are not counted: see
  /// updateNesting().
  bool emplace(const TypeInterface* type, FunctionRef<bool(void* memory)> construct);

  /// The value converted to T. Throws ConversionError where it does not convert or does not fit.
  template <class T>
  T to() const {
    return asReference().to<T>();
  }

  /// Compare contents as compareValues does, a total order over values of any kinds: bools,
  /// integers and floats by value, lists and tuples by elements, structs by the names of their
  /// fields. An empty value equals an empty one only, and stands first.
  GVTYPE_API friend bool operator==(const AnyValue& a, const AnyValue& b);
  GVTYPE_API friend bool operator<(const AnyValue& a, const AnyValue& b);

 private:
  static constexpr std::size_t inlineSize = 32;

  static bool fitsInline(const TypeInterface* type);
  void hold(const TypeInterface* type, FunctionRef<void(void* memory)> construct);
  void takeOver(const TypeInterface* type, void* from);
  void moveFrom(AnyValue& other) noexcept;
  void reset() noexcept;
  void destroyContent() noexcept;
  void destroyNested() noexcept;
  const void* storage() const {
    return onHeap_ ? *reinterpret_cast<void* const*>(inline_) : static_cast<const void*>(inline_);
  }

  const TypeInterface* type_ = nullptr;
  bool onHeap_ = false;
  std::uint8_t nesting_ = 0;
  alignas(std::max_align_t) unsigned char inline_[inlineSize];
};

}  // namespace gv

#include <gvtype/typetraits.h>  // IWYU pragma: keep
