#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include <gvtype/gettype.h>

namespace gv {

namespace detail {

/// Destroys its value as every value of the type system is, also where that throws.
template <class T>
union Owned {
  Owned() : value{} {}
  explicit Owned(T&& from) : value(std::move(from)) {}
  ~Owned() { destroyValue<T>(std::addressof(value)); }
  T value;
};

}  // namespace detail

/// A value of any type, by reference: its type and its address. Cheap to copy.
///
/// A reference to a caller's value (from) owns nothing and must not outlive it. A reference that is
/// the result of a call (own) shares ownership of its value, so that any number of readers on any
/// threads may keep it. Reading one value from several threads is safe as for the C++ type itself.
class GVTYPE_API AnyReference {
 public:
  /// An invalid reference: no type, no value.
  AnyReference() = default;
  AnyReference(const TypeInterface* type, void* pointer, std::shared_ptr<void> owner = {})
      : type_(type), pointer_(pointer), owner_(std::move(owner)) {}

  /// Refers to the caller's value, which stays the caller's.
  template <class T>
  static AnyReference from(const T& lvalue) {
    return {getType<T>(), const_cast<void*>(static_cast<const void*>(std::addressof(lvalue)))};
  }
  template <class T>
  static AnyReference from(const T&&) = delete;

  /// Takes the value over; every copy of the reference shares its ownership.
  template <class T>
  static AnyReference own(T value) {
    auto owner = std::make_shared<detail::Owned<T>>(std::move(value));
    void* pointer = std::addressof(owner->value);
    return {getType<T>(), pointer, std::move(owner)};
  }
  /// The result of a call that returns nothing.
  static AnyReference ofVoid() { return {getType<void>(), nullptr}; }

  bool isValid() const { return type_ != nullptr; }
  const TypeInterface* type() const { return type_; }
  void* pointer() const { return pointer_; }
  /// Whether the reference keeps its value alive by itself.
  bool isOwning() const { return owner_ != nullptr; }

  /// The value where it is exactly a T, else null. Borrowed from the reference.
  template <class T>
  T* as() const {
    return type_ && sameType(type_, getType<T>()) ? static_cast<T*>(pointer_) : nullptr;
  }

  /// The value converted to T. Throws ConversionError where it does not convert or does not fit.
  template <class T>
  T to() const {
    if (const T* same = as<T>()) return *same;
    T value{};
    convertTo(getType<T>(), &value);
    return value;
  }

  /// The signature of the value: "i", "as", "" for an invalid reference.
  std::string signature() const;

  /// A reference of its own to a copy of the value (invalid stays invalid). Throws
  /// std::runtime_error where the type cannot be copied.
  AnyReference clone() const;

 private:
  void convertTo(const TypeInterface* type, void* target) const;

  const TypeInterface* type_ = nullptr;
  void* pointer_ = nullptr;
  std::shared_ptr<void> owner_;
};

}  // namespace gv

// The descriptions of the standard types belong to every use of a reference.
#include <gvtype/anyvalue.h>  // IWYU pragma: keep
