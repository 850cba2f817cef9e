#include "pairs.h"

#include <gvtype/typeinterface.h>

#include "fieldorder.h"

namespace gv {
namespace {

AnyReference contentOf(AnyReference value) {
  while (value.isValid() && value.type()->kind == TypeKind::Dynamic)
    value = value.type()->dynamic->content(value.pointer());
  return value;
}

}  // namespace

bool mayBePairs(const TypeInterface& element) {
  if (element.kind == TypeKind::Dynamic) return true;
  const bool isOfTwo = !element.memberType || element.memberCount == 2;
  return element.kind == TypeKind::Tuple && isOfTwo && element.annotation.empty();
}

bool isPair(const AnyReference& element) {
  const AnyReference content = contentOf(element);
  if (!content.isValid()) return false;
  const TypeInterface& type = *content.type();
  if (type.kind == TypeKind::List) return type.list->size(content.pointer()) == 2;
  return type.kind == TypeKind::Tuple && type.tuple->size(content.pointer()) == 2 &&
         annotationOf(content).empty();
}

void visitPair(const AnyReference& element,
               FunctionRef<void(const AnyReference&, const AnyReference&)> visit) {
  const AnyReference pair = contentOf(element);
  const TypeInterface& type = *pair.type();
  if (type.kind == TypeKind::Tuple)
    return visit(type.tuple->member(pair.pointer(), 0), type.tuple->member(pair.pointer(), 1));
  int place = 0;
  type.list->forEach(pair.pointer(), [&](const AnyReference& first) {
    if (place++ != 0) return;
    int inner = 0;  // within the visit of the first, as the list may make its elements for it
    type.list->forEach(pair.pointer(), [&](const AnyReference& second) {
      if (inner++ == 1) visit(first, second);
    });
  });
}

}  // namespace gv
