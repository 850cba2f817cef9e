#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include <gvtype/anyreference.h>

namespace gv {

/// A value of any described type, owned. Copying copies the value; small values live inline.
/// Empty by default; an empty value converts to nothing but a dynamic value.
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

  /// A copy of what the reference refers to; empty for an invalid one. Throws std::runtime_error
  /// where the type cannot be copied.
  static AnyValue copyOf(const AnyReference& reference);
  /// A default value of the type. Throws std::runtime_error where the type has none.
  static AnyValue make(const TypeInterface* type);
  /// A default value of the type that a signature names: the matching C++ type, or a generic list,
  /// map or tuple that carries the signature. `signature` must be one complete, well-formed type.
  static AnyValue makeDefault(std::string_view signature);

  bool isValid() const { return type_ != nullptr; }
  const TypeInterface* type() const { return type_; }
  /// Refers to the value held, which stays this object's. Invalid when empty.
  AnyReference asReference() const { return {type_, const_cast<void*>(storage())}; }
  std::string signature() const { return asReference().signature(); }

  /// The value converted to T. Throws ConversionError where it does not convert or does not fit.
  template <class T>
  T to() const {
    return asReference().to<T>();
  }

  /// Equal when both are empty, or hold values of the same kind with equal contents; integers and
  /// floats compare by value across their sizes.
  GVTYPE_API friend bool operator==(const AnyValue& a, const AnyValue& b);
  /// A total order over values of any kinds.
  GVTYPE_API friend bool operator<(const AnyValue& a, const AnyValue& b);

 private:
  static constexpr std::size_t inlineSize = 32;

  static bool fitsInline(const TypeInterface* type);
  void* allocate(const TypeInterface* type);
  void takeOver(const TypeInterface* type, void* from);
  void moveFrom(AnyValue& other) noexcept;
  void reset() noexcept;
  const void* storage() const {
    return onHeap_ ? *reinterpret_cast<void* const*>(inline_) : static_cast<const void*>(inline_);
  }

  const TypeInterface* type_ = nullptr;
  bool onHeap_ = false;
  alignas(std::max_align_t) unsigned char inline_[inlineSize];
};

}  // namespace gv

#include <gvtype/typetraits.h>  // IWYU pragma: keep
