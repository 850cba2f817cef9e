// The order of values of any types.

#include <vector>

#include <gvtype/conversion.h>

#include "scalar.h"

namespace gv {
namespace {

template <class T>
int order(const T& a, const T& b) {
  return a < b ? -1 : b < a ? 1 : 0;
}

/// Bool, integers and floats are one class, lists and tuples another: they compare by content.
int classOf(const AnyReference& value) {
  if (!value.isValid()) return -1;
  switch (value.type()->kind) {
    case TypeKind::Bool:
    case TypeKind::Int:
    case TypeKind::Float:
      return static_cast<int>(TypeKind::Int);
    case TypeKind::Tuple:
      return static_cast<int>(TypeKind::List);
    default:
      return static_cast<int>(value.type()->kind);
  }
}

int compareNumbers(const AnyReference& a, const AnyReference& b) {
  const bool aIsFloat = a.type()->kind == TypeKind::Float;
  const bool bIsFloat = b.type()->kind == TypeKind::Float;
  if (aIsFloat || bIsFloat) {
    const auto number = [](const AnyReference& value, bool isFloat) {
      if (isFloat) return readFloat(value);
      const Integer integer = readInteger(value);
      const auto magnitude = static_cast<double>(integer.magnitude());
      return integer.isNegative() ? -magnitude : magnitude;
    };
    const double x = number(a, aIsFloat);
    const double y = number(b, bIsFloat);
    // NaN stands before every number, so that the order stays total.
    if (x != x || y != y) return order(x == x, y == y);
    if (x != y || aIsFloat == bIsFloat) return order(x, y);
    return 0;
  }
  const Integer x = readInteger(a);
  const Integer y = readInteger(b);
  if (x.isNegative() != y.isNegative()) return x.isNegative() ? -1 : 1;
  return order(x.bits, y.bits);
}

std::vector<AnyReference> elementsOf(const AnyReference& value) {
  std::vector<AnyReference> elements;
  const TypeInterface* type = value.type();
  if (type->kind == TypeKind::Tuple) {
    for (std::size_t i = 0; i < type->tuple->size(value.pointer()); ++i)
      elements.push_back(type->tuple->member(value.pointer(), i));
  } else {
    type->map->forEach(value.pointer(), [&](const AnyReference& key, const AnyReference& mapped) {
      elements.push_back(key);
      elements.push_back(mapped);
    });
  }
  return elements;
}

int compareSequences(const std::vector<AnyReference>& a, const std::vector<AnyReference>& b) {
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i)
    if (const int result = compareValues(a[i], b[i])) return result;
  return order(a.size(), b.size());
}

/// A list's elements may have no address of their own, so they are copied.
std::vector<AnyReference> copiesOf(const AnyReference& value) {
  if (value.type()->kind != TypeKind::List) return elementsOf(value);
  std::vector<AnyReference> elements;
  value.type()->list->forEach(
      value.pointer(), [&](const AnyReference& element) { elements.push_back(element.clone()); });
  return elements;
}

AnyReference contentOf(const AnyReference& value) {
  AnyReference content = value;
  while (content.isValid() && content.type()->kind == TypeKind::Dynamic) {
    AnyReference inner;
    content.type()->dynamic->visit(content.pointer(), [&](const AnyReference& visited) {
      inner = visited.isValid() ? visited.clone() : AnyReference();
    });
    content = inner;
  }
  return content;
}

}  // namespace

int compareValues(const AnyReference& first, const AnyReference& second) {
  const AnyReference a = contentOf(first);
  const AnyReference b = contentOf(second);
  if (classOf(a) != classOf(b)) return order(classOf(a), classOf(b));
  if (!a.isValid()) return 0;
  switch (a.type()->kind) {
    case TypeKind::Bool:
    case TypeKind::Int:
    case TypeKind::Float:
      return compareNumbers(a, b);
    case TypeKind::String:
    case TypeKind::Raw:
      return order(a.type()->bytes->view(a.pointer()), b.type()->bytes->view(b.pointer()));
    case TypeKind::List:
    case TypeKind::Tuple:
      return compareSequences(copiesOf(a), copiesOf(b));
    case TypeKind::Map:
      return compareSequences(elementsOf(a), elementsOf(b));
    default:
      return order(a.pointer(), b.pointer());
  }
}

}  // namespace gv
