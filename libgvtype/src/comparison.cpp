// The order of values of any types.

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include <gvtype/conversion.h>
#include <gvtype/nesting.h>
#include <gvtype/object.h>

#include "fieldorder.h"
#include "scalar.h"

namespace gv {
namespace {

template <class T>
int order(const T& a, const T& b) {
  return a < b ? -1 : b < a ? 1 : 0;
}

bool isStruct(const AnyReference& value) {
  return value.type()->kind == TypeKind::Tuple && !annotationOf(value).empty();
}

/// Bool, integers and floats are one class, lists and tuples another: they compare by content.
/// Structs are one of their own: they go by name, and what goes by position could not be ordered
/// among structs with the same fields in another order.
int classOf(const AnyReference& value) {
  if (!value.isValid()) return -1;
  switch (value.type()->kind) {
    case TypeKind::Bool:
    case TypeKind::Int:
    case TypeKind::Float:
      return static_cast<int>(TypeKind::Int);
    case TypeKind::Tuple:
      return static_cast<int>(isStruct(value) ? TypeKind::Tuple : TypeKind::List);
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
  } else {
    const bool hasAddresses = type->list->emplace != nullptr;
    type->list->forEach(value.pointer(), [&](const AnyReference& element) {
      elements.push_back(hasAddresses ? element : element.clone());
    });
  }
  return elements;
}

using Entry = std::pair<AnyReference, AnyReference>;

int compareItems(const AnyReference& a, const AnyReference& b) {
  return compareValues(a, b);
}
int compareItems(const Entry& a, const Entry& b) {
  const int result = compareValues(a.first, b.first);
  return result ? result : compareValues(a.second, b.second);
}

template <class Item>
int compareSequences(const std::vector<Item>& a, const std::vector<Item>& b) {
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i)
    if (const int result = compareItems(a[i], b[i])) return result;
  return order(a.size(), b.size());
}

/// The order in which a map goes through its entries is none of its content.
std::vector<Entry> sortedEntries(const AnyReference& map) {
  std::vector<Entry> entries;
  map.type()->map->forEach(map.pointer(), [&](const AnyReference& key, const AnyReference& value) {
    entries.emplace_back(key, value);
  });
  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return compareItems(a, b) < 0; });
  return entries;
}

std::vector<std::pair<std::string_view, AnyReference>> sortedFields(const AnyReference& value) {
  std::vector<std::pair<std::string_view, AnyReference>> fields;
  for (const std::string_view name : fieldNames(annotationOf(value)))
    fields.emplace_back(name, value.type()->tuple->member(value.pointer(), fields.size()));
  std::stable_sort(fields.begin(), fields.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  return fields;
}

int compareStructs(const AnyReference& a, const AnyReference& b) {
  const auto x = sortedFields(a);
  const auto y = sortedFields(b);
  for (std::size_t i = 0; i < x.size() && i < y.size(); ++i)
    if (const int result = order(x[i].first, y[i].first)) return result;
  if (x.size() != y.size()) return order(x.size(), y.size());
  for (std::size_t i = 0; i < x.size(); ++i)
    if (const int result = compareValues(x[i].second, y[i].second)) return result;
  return 0;
}

int compareContainers(const AnyReference& a, const AnyReference& b) {
  const NestingLevel level;
  if (a.type()->kind == TypeKind::Map) return compareSequences(sortedEntries(a), sortedEntries(b));
  if (isStruct(a)) return compareStructs(a, b);
  return compareSequences(elementsOf(a), elementsOf(b));
}

int compareOptionals(const AnyReference& a, const AnyReference& b) {
  const NestingLevel level;
  return compareValues(a.type()->optional->content(a.pointer()),
                       b.type()->optional->content(b.pointer()));
}

/// Values of no content that could be compared, other than objects, are all alike.
int compareOthers(const AnyReference& a, const AnyReference& b) {
  const ObjectOps* x = a.type()->object;
  const ObjectOps* y = b.type()->object;
  if (x && y) return order(x->get(a.pointer()).share().get(), y->get(b.pointer()).share().get());
  return order(typeName(a.type()), typeName(b.type()));
}

bool isDynamic(const AnyReference& value) {
  return value.isValid() && value.type()->kind == TypeKind::Dynamic;
}

/// What a dynamic value holds; any other value itself.
AnyReference contentOf(const AnyReference& value) {
  return isDynamic(value) ? value.type()->dynamic->content(value.pointer()) : value;
}

int compareContents(const AnyReference& a, const AnyReference& b) {
  const NestingLevel level;
  return compareValues(contentOf(a), contentOf(b));
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
    case TypeKind::Map:
      return compareContainers(a, b);
    case TypeKind::Optional:
      return compareOptionals(a, b);
    default:
      return compareOthers(a, b);
  }
}

}  // namespace gv
