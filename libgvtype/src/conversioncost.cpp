// What a conversion costs, for choosing among overloads.

#include <gvtype/conversion.h>
#include <gvtype/futuretype.h>
#include <gvtype/nesting.h>
#include <gvtype/signature.h>

#include "fieldorder.h"
#include "pairs.h"

namespace gv {
namespace {

// The lower the better; the steps leave room for the element's own cost in a container.
constexpr int same = 0;
constexpr int widening = 1;
constexpr int container = 2;
constexpr int narrowing = 4;
constexpr int acrossKinds = 6;
constexpr int intoDynamic = 10;
constexpr int pairsIntoMap = 1000;  // more than any way of taking the list for a list
constexpr int impossible = -1;

/// Signed integers are positive, unsigned negative sizes in bits; 0 for what is no integer.
int integerBits(char code) {
  switch (code) {
    case 'c':
      return 8;
    case 'n':
      return 16;
    case 'i':
      return 32;
    case 'x':
      return 64;
    case 'y':
      return -8;
    case 'q':
      return -16;
    case 'u':
      return -32;
    case 't':
      return -64;
    default:
      return 0;
  }
}

int integerCost(int from, int to) {
  const bool widens = (from > 0) == (to > 0) ? std::abs(from) < std::abs(to) : to > 0 && -from < to;
  return widens ? widening : narrowing;
}

int numberCost(char from, char to) {
  const int fromBits = integerBits(from);
  const int toBits = integerBits(to);
  const bool fromIsFloat = from == 'f' || from == 'd';
  const bool toIsFloat = to == 'f' || to == 'd';
  if (fromBits && toBits) return integerCost(fromBits, toBits);
  if (fromIsFloat && toIsFloat) return from == 'f' ? widening : narrowing;
  if ((fromBits && toIsFloat) || (fromIsFloat && toBits)) return acrossKinds;
  if ((from == 'b' && toBits) || (fromBits && to == 'b')) return acrossKinds;
  return impossible;
}

/// The element that converts worst decides.
class Worst {
 public:
  void add(int cost) {
    if (cost == impossible || worst_ == impossible)
      worst_ = impossible;
    else if (cost > worst_)
      worst_ = cost;
  }
  int of(int own) const { return worst_ == impossible ? impossible : own + worst_; }

 private:
  int worst_ = 0;
};

/// Stands for every value of a type. What the type alone does not decide is then undecided.
AnyReference anyOf(const TypeInterface* type) {
  return {type, nullptr};
}

int undecided(bool* looksAtValue) {
  *looksAtValue = true;
  return impossible;
}

std::size_t memberCount(const AnyReference& tuple) {
  const TypeInterface* type = tuple.type();
  return tuple.pointer() ? type->tuple->size(tuple.pointer()) : type->memberCount;
}

AnyReference memberOf(const AnyReference& tuple, std::size_t index) {
  return tuple.pointer() ? tuple.type()->tuple->member(tuple.pointer(), index)
                         : anyOf(tuple.type()->memberType(index));
}

int listCost(const AnyReference& source, std::string_view element, bool* looksAtValue) {
  const TypeInterface* type = source.type();
  if (type->kind == TypeKind::Tuple) {
    Worst worst;
    for (std::size_t i = 0; i < memberCount(source); ++i)
      worst.add(conversionCost(memberOf(source, i), element, looksAtValue));
    return worst.of(container + 1);
  }
  if (type->kind != TypeKind::List) return impossible;
  // By the elements' type where that decides, so that an empty list fits as a full one does.
  bool isUndecided = false;
  Worst ofType;
  ofType.add(conversionCost(anyOf(type->list->elementType()), element, &isUndecided));
  if (!isUndecided) return ofType.of(container);
  *looksAtValue = true;
  if (!source.pointer()) return impossible;
  Worst worst;
  type->list->forEach(source.pointer(), [&](const AnyReference& item) {
    worst.add(conversionCost(item, element, looksAtValue));
  });
  return worst.of(container);
}

int tupleCost(const AnyReference& source, std::string_view signature, bool* looksAtValue) {
  const auto members = signatureMembers(signature);
  const TypeInterface* type = source.type();
  Worst worst;
  std::size_t index = 0;
  const auto add = [&](const AnyReference& item) {
    if (index < members.size()) worst.add(conversionCost(item, members[index], looksAtValue));
    ++index;
  };
  if (type->kind == TypeKind::List) {
    *looksAtValue = true;
    if (!source.pointer()) return impossible;
    type->list->forEach(source.pointer(), add);
    return index == members.size() ? worst.of(container) : impossible;
  }
  if (type->kind != TypeKind::Tuple || memberCount(source) != members.size()) return impossible;
  const FieldOrder order(annotationOf(source), signatureAnnotation(signature));
  if (!order.isPossible()) return impossible;
  while (index < members.size())
    add(memberOf(source, order.isByPosition() ? index : order.sourceOf(index)));
  return worst.of(container);
}

int pairCost(const AnyReference& first, const AnyReference& second, std::string_view key,
             std::string_view value, bool* looksAtValue) {
  Worst worst;
  worst.add(conversionCost(first, key, looksAtValue));
  worst.add(conversionCost(second, value, looksAtValue));
  return worst.of(0);
}

int mapOfPairsCost(const AnyReference& list, std::string_view key, std::string_view value,
                   bool* looksAtValue) {
  const TypeInterface& element = *list.type()->list->elementType();
  if (!mayBePairs(element)) return impossible;
  Worst worst;
  if (element.memberType) {
    bool isUndecided = false;
    worst.add(pairCost(anyOf(element.memberType(0)), anyOf(element.memberType(1)), key, value,
                       &isUndecided));
    if (!isUndecided) return worst.of(pairsIntoMap);
    worst = {};
  }
  *looksAtValue = true;
  if (!list.pointer()) return impossible;
  list.type()->list->forEach(list.pointer(), [&](const AnyReference& item) {
    if (!isPair(item)) return worst.add(impossible);
    visitPair(item, [&](const AnyReference& first, const AnyReference& second) {
      worst.add(pairCost(first, second, key, value, looksAtValue));
    });
  });
  return worst.of(pairsIntoMap);
}

int mapCost(const AnyReference& source, std::string_view signature, bool* looksAtValue) {
  const std::string_view inner = signature.substr(2, signature.size() - 3);
  const std::size_t keyLength = signatureLength(inner);
  if (source.type()->kind == TypeKind::List)
    return mapOfPairsCost(source, inner.substr(0, keyLength), inner.substr(keyLength),
                          looksAtValue);
  if (source.type()->kind != TypeKind::Map) return impossible;
  bool isUndecided = false;
  Worst worst;
  const auto add = [&](const AnyReference& key, const AnyReference& value) {
    worst.add(conversionCost(key, inner.substr(0, keyLength), &isUndecided));
    worst.add(conversionCost(value, inner.substr(keyLength), &isUndecided));
  };
  if (const auto partType = source.type()->memberType) {
    add(anyOf(partType(0)), anyOf(partType(1)));
    if (!isUndecided) return worst.of(container);
  }
  *looksAtValue = true;
  if (!source.pointer()) return impossible;
  worst = {};
  source.type()->map->forEach(source.pointer(), add);
  return worst.of(container);
}

/// A value that holds another one, or nothing: it converts as its content does.
int heldCost(const AnyReference& content, std::string_view signature, bool* looksAtValue) {
  *looksAtValue = true;
  const int cost = conversionCost(content, signature, looksAtValue);
  return cost == impossible ? impossible : cost + widening;
}

int futureCost(const AnyReference& source, std::string_view signature, bool* looksAtValue) {
  FutureOps::Ending ending;
  source.type()->future->peek(source.pointer(), ending);
  return heldCost(ending.value, signature, looksAtValue);
}

int toOptionalCost(const AnyReference& source, std::string_view element, bool* looksAtValue) {
  AnyReference content = source;
  if (source.type()->kind == TypeKind::Optional) {
    *looksAtValue = true;  // any optional that is empty converts
    content = source.type()->optional->content(source.pointer());
    if (!content.isValid()) return container;
  }
  const int cost = conversionCost(content, element, looksAtValue);
  return cost == impossible ? impossible : cost + container;
}

/// Between types of which one at least has more than one letter.
int nestedCost(const AnyReference& source, std::string_view signature, bool* looksAtValue) {
  if (NestingLevel::isExhausted()) return impossible;
  const NestingLevel level;
  const TypeInterface* type = source.type();
  if (!source.pointer() && (type->kind == TypeKind::Dynamic || type->ownSignature))
    return undecided(looksAtValue);
  if (type->kind == TypeKind::Dynamic)
    return heldCost(type->dynamic->content(source.pointer()), signature, looksAtValue);
  if (type->ownSignature) *looksAtValue = true;
  if (!type->code && source.signature() == signature) return same;
  if (signature == "v") return type->copy ? intoDynamic : impossible;
  if (!source.pointer() && (type->kind == TypeKind::Optional || type->kind == TypeKind::Future))
    return undecided(looksAtValue);
  if (signature.starts_with('m')) return toOptionalCost(source, signature.substr(1), looksAtValue);
  if (type->kind == TypeKind::Optional)
    return heldCost(type->optional->content(source.pointer()), signature, looksAtValue);
  if (type->kind == TypeKind::Future) return futureCost(source, signature, looksAtValue);
  if (signature.starts_with("a{")) return mapCost(source, signature, looksAtValue);
  if (signature.starts_with('a')) return listCost(source, signature.substr(1), looksAtValue);
  if (signature.starts_with('(')) return tupleCost(source, signature, looksAtValue);
  return impossible;
}

/// Of a dynamic value to a type of one letter. What it holds needs no look at nesting, where that
/// is of one letter, too.
int flatContentCost(const AnyReference& source, std::string_view signature, bool* looksAtValue) {
  const TypeInterface* type = source.type();
  if (!source.pointer()) return undecided(looksAtValue);
  const AnyReference content = type->dynamic->content(source.pointer());
  if (content.isValid() && content.type()->kind < TypeKind::List)
    return heldCost(content, signature, looksAtValue);
  return nestedCost(source, signature, looksAtValue);
}

}  // namespace

int conversionCost(const AnyReference& source, std::string_view signature, bool* looksAtValue) {
  const TypeInterface* type = source.type();
  if (!type) return signature == "v" ? same : signature.starts_with('m') ? container : impossible;
  if (!type->code || signature.size() != 1) return nestedCost(source, signature, looksAtValue);
  if (type->code == signature[0]) return same;  // of two X the call itself tells
  if (type->kind == TypeKind::Dynamic) return flatContentCost(source, signature, looksAtValue);
  if (signature == "v") return type->copy || type->code == 'V' ? intoDynamic : impossible;
  return numberCost(type->code, signature[0]);
}

}  // namespace gv
