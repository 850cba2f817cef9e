#pragma once

#include <span>
#include <vector>

#include <gvtype/anyreference.h>

namespace gv {

/// The arguments of a call, in order, each a reference to a value of the caller's.
class GVTYPE_API GenericFunctionParameters : public std::vector<AnyReference> {
 public:
  using std::vector<AnyReference>::vector;

  /// Arguments that own copies of the values, for a call that outlives its caller's values. What
  /// already owns its value is shared, not copied. Throws std::runtime_error where a type cannot be
  /// copied.
  GenericFunctionParameters copy() const;
};

/// The same for arguments that stand anywhere.
GVTYPE_API GenericFunctionParameters ownedCopies(std::span<const AnyReference> arguments);

/// References to the given values, which must outlive the result.
template <class... A>
GenericFunctionParameters makeParameters(const A&... arguments) {
  return GenericFunctionParameters({AnyReference::from(arguments)...});
}

}  // namespace gv
