#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include <gvtype/anyreference.h>
#include <gvtype/anyvalue.h>

namespace gv {

/// A value that does not convert. The text names the source and target types and the place inside
/// the value: "cannot convert string to int32 (argument 2, element 5)".
class GVTYPE_API ConversionError : public std::runtime_error {
 public:
  enum class Reason {
    Kind,  ///< values of the source type never convert to the target type
    Value  ///< this value does not fit the target type
  };
  ConversionError(Reason reason, const std::string& text)
      : std::runtime_error(text), reason_(reason) {}
  ~ConversionError() override;
  Reason reason() const { return reason_; }

 private:
  Reason reason_;
};

/// Where a conversion stands inside the value that the caller gave; for error texts.
struct ConversionPlace {
  const ConversionPlace* outer = nullptr;
  const char* word = nullptr;
  std::size_t number = 0;
};

/// Converts `source` into `target`, an existing value of `type`, by the table of
/// docs/conversions.md. Never loses silently: a number that the target cannot hold exactly is an
/// error. Never waits: a future that has not ended is an error. Throws ConversionError; `target` is
/// then a valid value with unspecified content.
GVTYPE_API void convertInto(const AnyReference& source, const TypeInterface* type, void* target,
                            const ConversionPlace& place = {});

/// Converts to the type that a well-formed signature names.
GVTYPE_API AnyValue convertTo(const AnyReference& source, std::string_view signature,
                              const ConversionPlace& place = {});

/// What a conversion of this value to a type of this signature costs, for choosing among overloads:
/// 0 the same type, more for less fitting ones, negative where it is impossible. Never throws.
/// Sets `*looksAtValue` where the answer depends on the value and not on its static type alone.
GVTYPE_API int conversionCost(const AnyReference& source, std::string_view signature,
                              bool* looksAtValue);

/// Orders two values of any types: negative, 0 or positive; a total order. Dynamic values compare
/// as what they hold. Within a row values compare by content, otherwise the rows stand in an order:
/// - bools, integers and floats: by value, exactly (true is 1 is 1.0; NaN before all, equal to
/// NaN);
/// - strings; raw bytes: by bytes;
/// - lists and tuples: element by element, a shorter one before what it begins;
/// - maps: by their entries in the order of their keys, however the map keeps them;
/// - structs: by fields of the same names, in whatever order and whatever the structs' own names; a
///   struct equals no tuple and no struct of other fields;
/// - optionals: an empty one first, then by content;
/// - objects: by address;
/// - futures and types without description: all of one type are equal.
/// Throws ConversionError where both nest deeper than NestingLevel::limit.
GVTYPE_API int compareValues(const AnyReference& a, const AnyReference& b);

}  // namespace gv
