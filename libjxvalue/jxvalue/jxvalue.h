#pragma once

#include <jxvalue/api.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace JX {
class JXValue;
}

namespace gv {
template <class T>
struct TypeTraits;

// Defined by libjxcommon only: without its header a JXValue cannot enter the type system, rather
// than entering it as something else.
template <>
struct TypeTraits<JX::JXValue>;
}  // namespace gv

namespace JX {

/// The dynamic value of the classic interface: nothing (invalid), a truth value, an integer, a
/// floating-point number, a text, a block of bytes, or an array of values.
///
/// A value: copies are deep and independent, assigning a value to a part of itself or a part to
/// the whole is safe, and a moved-from value is invalid. Scalars and short texts take no memory of
/// their own. Arrays may nest to any depth. Different values may be used on different threads; one
/// value is not to be changed while another thread uses it.
///
/// Reading never converts between kinds: it throws JXError where the value is of another kind or
/// does not fit the asked type. The exceptions: any width of integer reads as any other that holds
/// it, and toDouble() reads integers that a double holds exactly.
class JXVALUE_API JXValue {
 public:
  /// What the value is. The width and sign of an integer are those it was made with.
  enum class Kind { Invalid, Bool, Int, UInt, Int64, UInt64, Float, String, Binary, Array };

  /// An invalid value.
  JXValue() noexcept;

  template <std::same_as<bool> B>
  JXValue(B value) : storage_(value) {}  // a template, so that no pointer becomes a truth value
  JXValue(int value) noexcept;
  JXValue(unsigned value) noexcept;
  JXValue(long value) noexcept;
  JXValue(unsigned long value) noexcept;
  JXValue(long long value) noexcept;
  JXValue(unsigned long long value) noexcept;

  /// Both kinds of float are kept as a double.
  JXValue(float value) noexcept;
  JXValue(double value) noexcept;

  /// A text: any bytes, UTF-8 by custom. A null pointer throws JXError.
  JXValue(const char* text);
  JXValue(std::string text);
  JXValue(std::nullptr_t) = delete;

  /// An array of the elements, each made into a value.
  template <class T>
  requires std::constructible_from<JXValue, const T&> JXValue(const std::vector<T>& elements);

  /// A block of `size` bytes, copied from `data`, which may be null when `size` is 0.
  static JXValue binary(const void* data, std::size_t size);

  JXValue(const JXValue& other);
  JXValue(JXValue&& other) noexcept;
  JXValue& operator=(JXValue other) noexcept;
  ~JXValue();

  Kind kind() const noexcept { return static_cast<Kind>(storage_.index()); }
  bool isValid() const noexcept { return kind() != Kind::Invalid; }
  bool isBool() const noexcept { return kind() == Kind::Bool; }
  /// An integer of any width and sign.
  bool isInt() const noexcept { return kind() >= Kind::Int && kind() <= Kind::UInt64; }
  bool isFloat() const noexcept { return kind() == Kind::Float; }
  bool isString() const noexcept { return kind() == Kind::String; }
  bool isBinary() const noexcept { return kind() == Kind::Binary; }
  bool isArray() const noexcept { return kind() == Kind::Array; }

  bool toBool() const;
  int toInt() const;
  unsigned toUInt() const;
  std::int64_t toInt64() const;
  std::uint64_t toUInt64() const;
  double toDouble() const;

  /// The text of a string value. The reference lives as long as the value stays unchanged.
  const std::string& toString() const&;
  std::string toString() &&;

  /// The bytes of a binary value. The reference lives as long as the value stays unchanged.
  const std::vector<unsigned char>& toBinary() const&;
  std::vector<unsigned char> toBinary() &&;

  /// Makes this an array of `size` elements: of an array the first ones stay and new ones are
  /// invalid; any other value is replaced. A negative size throws JXError.
  void arraySetSize(int size);

  /// Number of elements of an array, 0 for an invalid value. Any other kind throws JXError.
  int getSize() const;

  /// The element at `index`. On a changeable array (or invalid value, which becomes one) an index
  /// past the end grows it with invalid elements; on a constant one it throws JXError, as a
  /// negative index and a value of another kind always do. Growing ends other references to
  /// elements.
  JXValue& operator[](int index);
  const JXValue& operator[](int index) const;

  /// Appends to an array; an invalid value becomes one. Any other kind throws JXError.
  void arrayPush(JXValue value);

  /// Equality and one total order over all values: first by group (invalid, bool, integer, float,
  /// string, binary, array, so that 1 and 1.0 differ, as text and binary of the same bytes do),
  /// then by content: integers by number whatever their width, arrays element by element. NaN
  /// equals itself and comes before all other floats; 0.0 equals -0.0.
  JXVALUE_API friend bool operator==(const JXValue& left, const JXValue& right);
  JXVALUE_API friend bool operator<(const JXValue& left, const JXValue& right);

  /// JSON text on one line. Invalid is null, floats keep a point, and what JSON cannot say is an
  /// object of one entry: {"$binary": "<base64>"}, {"$text": "<base64>"} for a text that is not
  /// UTF-8, {"$float": "nan"} ("inf", "-inf"). Arrays nested deeper than 64 throw JXError.
  std::string toJson() const;

  /// The value of a JSON text, as toJson() writes it. Integers become the first of int, int64 and
  /// uint64 that holds them. Malformed texts, other objects, numbers out of range and arrays
  /// nested deeper than 64 throw JXError; that of a malformed text gives the place.
  static JXValue fromJson(const std::string& text);

 private:
  friend struct gv::TypeTraits<JXValue>;
  using Array = std::vector<JXValue>;
  using Binary = std::vector<unsigned char>;

  Array& changeableArray(const char* method);

  // In the order of Kind.
  std::variant<std::monostate, bool, std::int32_t, std::uint32_t, std::int64_t, std::uint64_t,
               double, std::string, Binary, Array>
      storage_;
};

template <class T>
requires std::constructible_from<JXValue, const T&> JXValue::JXValue(const std::vector<T>& elements)
    : JXValue() {
  auto& array = storage_.template emplace<Array>();
  array.reserve(elements.size());
  for (const T& element : elements) array.emplace_back(element);
}

}  // namespace JX
