#include "pairs.h"

#include <gvtype/typeinterface.h>

namespace gv {
namespace {

AnyReference contentOf(AnyReference value) {
  while (value.isValid() && value.type()->kind == TypeKind::Dynamic)
    value = value.type()->dynamic->content(value.pointer());
  return value;
}

bool isPair(const AnyReference& value) {
  if (!value.isValid()) return false;
  const TypeInterface& type = *value.type();
  return type.kind == TypeKind::List    ? type.list->size(value.pointer()) == 2
         : type.kind == TypeKind::Tuple ? type.tuple->size(value.pointer()) == 2
                                        : false;
}

}  // namespace

bool isListOfPairs(const AnyReference& list) {
  if (list.type()->kind != TypeKind::List) return false;
  const TypeKind element = list.type()->list->elementType()->kind;
  if (element != TypeKind::List && element != TypeKind::Tuple && element != TypeKind::Dynamic)
    return false;  // also where it is empty
  bool areAll = true;
  list.type()->list->forEach(list.pointer(), [&](const AnyReference& item) {
    areAll = areAll && isPair(contentOf(item));
  });
  return areAll;
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
