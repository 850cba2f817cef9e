#include <jxvalue/jxvalue.h>

#include <cmath>
#include <compare>
#include <cstdint>
#include <utility>
#include <vector>

namespace JX {
namespace {

using Kind = JXValue::Kind;

// Integers of all widths are one group.
Kind groupOf(const JXValue& value) {
  return value.isInt() ? Kind::Int : value.kind();
}

bool exceedsInt64(const JXValue& value) {
  return value.kind() == Kind::UInt64 && !std::in_range<std::int64_t>(value.toUInt64());
}

std::weak_ordering compareIntegers(const JXValue& left, const JXValue& right) {
  const bool leftExceeds = exceedsInt64(left);
  const bool rightExceeds = exceedsInt64(right);
  if (leftExceeds && rightExceeds) return left.toUInt64() <=> right.toUInt64();
  if (leftExceeds || rightExceeds) return leftExceeds <=> rightExceeds;
  return left.toInt64() <=> right.toInt64();
}

std::weak_ordering compareFloats(double left, double right) {
  if (std::isnan(left) || std::isnan(right)) return std::isnan(right) <=> std::isnan(left);
  if (left == right) return std::weak_ordering::equivalent;
  return left < right ? std::weak_ordering::less : std::weak_ordering::greater;
}

// Values that are not both arrays.
std::weak_ordering compareFlat(const JXValue& left, const JXValue& right) {
  const Kind group = groupOf(left);
  if (group != groupOf(right)) return group <=> groupOf(right);
  switch (group) {
    case Kind::Bool:
      return left.toBool() <=> right.toBool();
    case Kind::Int:
      return compareIntegers(left, right);
    case Kind::Float:
      return compareFloats(left.toDouble(), right.toDouble());
    case Kind::String:
      return left.toString() <=> right.toString();
    case Kind::Binary:
      return left.toBinary() <=> right.toBinary();
    default:
      return std::weak_ordering::equivalent;
  }
}

struct ArrayPair {
  const JXValue* left;
  const JXValue* right;
  int next;  // the first element not yet compared
};

// Element by element, with a list of the open arrays instead of recursion: depth must not cost
// stack.
std::weak_ordering compare(const JXValue& left, const JXValue& right) {
  if (!left.isArray() || !right.isArray()) return compareFlat(left, right);
  std::vector<ArrayPair> open{{&left, &right, 0}};
  while (!open.empty()) {
    ArrayPair& top = open.back();
    const int leftSize = top.left->getSize();
    const int rightSize = top.right->getSize();
    if (top.next == leftSize || top.next == rightSize) {
      if (leftSize != rightSize) return leftSize <=> rightSize;
      open.pop_back();
      continue;
    }
    const JXValue& a = (*top.left)[top.next];
    const JXValue& b = (*top.right)[top.next];
    ++top.next;
    if (a.isArray() && b.isArray()) {
      open.push_back({&a, &b, 0});
    } else if (const auto order = compareFlat(a, b); std::is_neq(order)) {
      return order;
    }
  }
  return std::weak_ordering::equivalent;
}

}  // namespace

bool operator==(const JXValue& left, const JXValue& right) {
  return std::is_eq(compare(left, right));
}
bool operator<(const JXValue& left, const JXValue& right) {
  return std::is_lt(compare(left, right));
}

}  // namespace JX
