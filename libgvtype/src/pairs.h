#pragma once

#include <gvtype/anyreference.h>

namespace gv {

// Lists of pairs stand for maps where those who made them have no maps.

/// Whether elements of that type may be pairs: tuples of two that are no structs are, and of
/// dynamic values and generic tuples each tells by itself.
bool mayBePairs(const TypeInterface& element);

/// Whether an element is such a tuple, or a dynamic value that holds one or a list of two.
bool isPair(const AnyReference& element);

/// Calls `visit` with both members of a pair.
void visitPair(const AnyReference& element,
               FunctionRef<void(const AnyReference& first, const AnyReference& second)> visit);

}  // namespace gv
