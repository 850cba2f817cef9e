#pragma once

#include <gvtype/anyreference.h>

namespace gv {

/// One level of the value that the calling thread is walking. Whatever builds, copies, compares,
/// converts, prints or encodes a value makes one on the stack on entering each container, optional
/// or dynamic value in it: all of them share one count a thread, and so one limit.
class GVTYPE_API NestingLevel {
 public:
  /// How many levels a value may have.
  static constexpr int limit = 64;

  /// Throws ConversionError ("a value nests deeper than 64 levels") at the limit.
  NestingLevel();
  ~NestingLevel();
  NestingLevel(const NestingLevel&) = delete;
  NestingLevel& operator=(const NestingLevel&) = delete;

  /// Whether another level would be one too many.
  static bool isExhausted();
  /// Throws the error of the limit.
  [[noreturn]] static void refuse();
};

/// The levels of a value: 0 for a number, 1 for a list of numbers. Throws ConversionError where it
/// walks into more than the limit.
GVTYPE_API int nestingOf(const AnyReference& value);

}  // namespace gv
