#pragma once

#include <gvtype/typetraits.h>
#include <jxcommon/api.h>
#include <jxvalue/jxvalue.h>

namespace gv {

/// JXValue in the run-time type system: a dynamic value (signature `v`), so that it converts to and
/// from every described type and crosses calls as any argument or result.
///
/// Out of a JXValue: its content, numbers in the width they have, binary as raw bytes, an array as
/// a list of dynamic values; an invalid JXValue has no content. Into one: numbers keep 32 and 64
/// bits and their sign (smaller ones become 32 bits), both floats become double, lists and tuples
/// become arrays, a map an array of [key, value] arrays, and what is dynamic itself its content. No
/// value at all (void, an empty dynamic) becomes invalid.
///
/// Throws gv::ConversionError: of reason Kind for objects, futures and types without description,
/// of reason Value where what is converted nests deeper than 64 levels (a JXValue in it is copied
/// as it is).
template <>
struct TypeTraits<JX::JXValue> {
  JXCOMMON_API static void describe(TypeInterface& type);

 private:
  /// What the value holds, in place.
  static AnyReference content(const JX::JXValue& value);
};

}  // namespace gv
