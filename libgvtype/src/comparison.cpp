// The order of values of any types.

#include <cmath>
#include <vector>

#include <gvtype/conversion.h>
#include <gvtype/nesting.h>

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

int compareIntegers(const Integer& a, const Integer& b) {
  if (a.isNegative() != b.isNegative()) return a.isNegative() ? -1 : 1;
  return order(a.bits, b.bits);
}

/// Exact, so that the order stays transitive where a double cannot hold the integer.
int compareWithFloat(const Integer& integer, double number) {
  if (number != number) return 1;
  if (number >= std::ldexp(1.0, 64)) return -1;
  if (number < -std::ldexp(1.0, 63)) return 1;
  const double whole = std::floor(number);
  const auto bits = whole < 0 ? static_cast<std::uint64_t>(static_cast<std::int64_t>(whole))
                              : static_cast<std::uint64_t>(whole);
  const int result = compareIntegers(integer, {bits, whole < 0});
  return result == 0 && whole != number ? -1 : result;
}

int compareNumbers(const AnyReference& a, const AnyReference& b) {
  const bool aIsFloat = a.type()->kind == TypeKind::Float;
  const bool bIsFloat = b.type()->kind == TypeKind::Float;
  if (aIsFloat && bIsFloat) {
    const double x = readFloat(a);
    const double y = readFloat(b);
    // NaN stands before every number, so that the order stays total.
    return x != x || y != y ? order(x == x, y == y) : order(x, y);
  }
  if (aIsFloat) return -compareWithFloat(readInteger(b), readFloat(a));
  if (bIsFloat) return compareWithFloat(readInteger(a), readFloat(b));
  return compareIntegers(readInteger(a), readInteger(b));
}

std::vector<AnyReference> elementsOf(const AnyReference& value) {
  std::vector<AnyReference> elements;
  const TypeInterface* type = value.type();
  if (type->kind == TypeKind::Tuple) {
    for (std::size_t i = 0; i < type->tuple->size(value.pointer()); ++i)
      elements.push_back(type->tuple->member(value.pointer(), i));
  } else if (type->kind == TypeKind::List) {
    const bool hasAddresses = type->list->emplace != nullptr;
    type->list->forEach(value.pointer(), [&](const AnyReference& element) {
      elements.push_back(hasAddresses ? element : element.clone());
    });
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

int compareOptionals(const AnyReference& a, const AnyReference& b) {
  return compareValues(a.type()->optional->content(a.pointer()),
                       b.type()->optional->content(b.pointer()));
}

bool isDynamic(const AnyReference& value) {
  return value.isValid() && value.type()->kind == TypeKind::Dynamic;
}

/// Calls `visit` with what a dynamic value holds, with any other value itself.
void withContent(const AnyReference& value, FunctionRef<void(const AnyReference&)> visit) {
  if (isDynamic(value))
    value.type()->dynamic->visit(value.pointer(), visit);
  else
    visit(value);
}

int compareContents(const AnyReference& a, const AnyReference& b) {
  const NestingLevel level;
  int result = 0;
  withContent(a, [&](const AnyReference& x) {
    withContent(b, [&](const AnyReference& y) { result = compareValues(x, y); });
  });
  return result;
}

}  // namespace

int compareValues(const AnyReference& a, const AnyReference& b) {
  if (isDynamic(a) || isDynamic(b)) return compareContents(a, b);
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
    case TypeKind::Map: {
      const NestingLevel level;
      return compareSequences(elementsOf(a), elementsOf(b));
    }
    case TypeKind::Optional: {
      const NestingLevel level;
      return compareOptionals(a, b);
    }
    default:
      // Of no comparable content: all values of one type are alike.
      return order(typeName(a.type()), typeName(b.type()));
  }
}

}  // namespace gv
