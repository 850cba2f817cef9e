#pragma once

#include <gvtype/anyreference.h>

namespace gv {

/// Whether each element of the list is a list or tuple of two, by itself or within a dynamic value:
/// the entries of a map, for those who have no maps.
bool isListOfPairs(const AnyReference& list);

/// Calls `visit` with both members of an element of such a list.
void visitPair(const AnyReference& element,
               FunctionRef<void(const AnyReference& first, const AnyReference& second)> visit);

}  // namespace gv
