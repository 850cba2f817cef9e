#include <gvtype/conversion.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <vector>

#include <gvtype/futuretype.h>
#include <gvtype/nesting.h>
#include <gvtype/object.h>
#include <gvtype/signature.h>

#include "fieldorder.h"
#include "pairs.h"
#include "scalar.h"

namespace gv {
namespace {

std::string describe(const ConversionPlace& place) {
  std::vector<const ConversionPlace*> path;
  for (const ConversionPlace* p = &place; p; p = p->outer)
    if (p->word) path.push_back(p);
  if (path.empty()) return {};
  std::string text;
  for (auto p = path.rbegin(); p != path.rend(); ++p)
    text +=
        (text.empty() ? " (" : ", ") + std::string((*p)->word) + " " + std::to_string((*p)->number);
  return text + ")";
}

ConversionPlace inside(const ConversionPlace& place, const char* word, std::size_t index) {
  return {&place, word, index + 1};
}

[[noreturn]] void failKind(const AnyReference& source, const TypeInterface* type,
                           const ConversionPlace& place, const char* reason = "") {
  throw ConversionError(ConversionError::Reason::Kind, "cannot convert " + typeName(source.type()) +
                                                           " to " + typeName(type) + reason +
                                                           describe(place));
}

[[noreturn]] void failValue(const AnyReference& source, const TypeInterface* type,
                            const ConversionPlace& place, const std::string& reason) {
  throw ConversionError(ConversionError::Reason::Value,
                        "cannot convert " + typeName(source.type()) + " to " + typeName(type) +
                            ": " + reason + describe(place));
}

[[noreturn]] void failNumber(const AnyReference& source, const TypeInterface* type,
                             const ConversionPlace& place) {
  throw ConversionError(ConversionError::Reason::Value,
                        "cannot convert " + typeName(source.type()) + " " + scalarText(source) +
                            " to " + typeName(type) + ": the value does not fit" + describe(place));
}

/// Whether an integer of this magnitude is exact with that many bits of mantissa.
bool isExact(std::uint64_t magnitude, int mantissaBits) {
  return magnitude == 0 ||
         static_cast<int>(std::bit_width(magnitude)) - std::countr_zero(magnitude) <= mantissaBits;
}

void integerToFloat(const AnyReference& source, const TypeInterface* type, void* target,
                    const ConversionPlace& place) {
  const Integer integer = readInteger(source);
  if (!isExact(integer.magnitude(), type->size == 4 ? FLT_MANT_DIG : DBL_MANT_DIG))
    failNumber(source, type, place);
  const auto magnitude = static_cast<double>(integer.magnitude());
  writeFloat(type, target, integer.isNegative() ? -magnitude : magnitude);
}

void floatToInteger(const AnyReference& source, const TypeInterface* type, void* target,
                    const ConversionPlace& place) {
  const double number = readFloat(source);
  const int bits = static_cast<int>(type->size * 8) - (type->isSigned ? 1 : 0);
  const double limit = std::ldexp(1.0, bits);
  if (!(number < limit && number >= (type->isSigned ? -limit : 0.0)) ||
      std::trunc(number) != number)
    failNumber(source, type, place);
  writeInteger(type, target,
               number < 0 ? static_cast<std::uint64_t>(static_cast<std::int64_t>(number))
                          : static_cast<std::uint64_t>(number));
}

void floatToFloat(const AnyReference& source, const TypeInterface* type, void* target,
                  const ConversionPlace& place) {
  const double number = readFloat(source);
  if (type->size == 4 && std::isfinite(number) &&
      (std::fabs(number) > static_cast<double>(FLT_MAX) ||
       static_cast<double>(static_cast<float>(number)) != number))
    failNumber(source, type, place);
  writeFloat(type, target, number);
}

void convertToNumber(const AnyReference& source, const TypeInterface* type, void* target,
                     const ConversionPlace& place) {
  const TypeKind from = source.type()->kind;
  if (from == TypeKind::Float && type->kind == TypeKind::Float)
    floatToFloat(source, type, target, place);
  else if (from == TypeKind::Float && type->kind == TypeKind::Int)
    floatToInteger(source, type, target, place);
  else if (from == TypeKind::Int && type->kind == TypeKind::Float)
    integerToFloat(source, type, target, place);
  else if ((from == TypeKind::Int || from == TypeKind::Bool) &&
           (type->kind == TypeKind::Int || type->kind == TypeKind::Bool)) {
    const Integer integer = readInteger(source);
    if (!fitsInteger(integer, type)) failNumber(source, type, place);
    writeInteger(type, target, integer.bits);
  } else {
    failKind(source, type, place);
  }
}

void appendElement(const AnyReference& element, const TypeInterface* type, void* list,
                   const ConversionPlace& place) {
  if (type->list->emplace) {
    const AnyReference added = type->list->emplace(list);
    convertInto(element, added.type(), added.pointer(), place);
  } else {
    const AnyValue added = AnyValue::make(type->list->elementType());
    convertInto(element, added.type(), added.asReference().pointer(), place);
    type->list->push(list, added.asReference().pointer());
  }
}

void forEachElement(const AnyReference& source, FunctionRef<void(const AnyReference&)> visit) {
  if (source.type()->kind == TypeKind::List)
    return source.type()->list->forEach(source.pointer(), visit);
  const TupleOps* tuple = source.type()->tuple;
  for (std::size_t i = 0; i < tuple->size(source.pointer()); ++i)
    visit(tuple->member(source.pointer(), i));
}

bool isSequence(const AnyReference& source) {
  return source.type()->kind == TypeKind::List || source.type()->kind == TypeKind::Tuple;
}

std::size_t sequenceSize(const AnyReference& source) {
  return source.type()->kind == TypeKind::List ? source.type()->list->size(source.pointer())
                                               : source.type()->tuple->size(source.pointer());
}

void convertToList(const AnyReference& source, const TypeInterface* type, void* target,
                   const ConversionPlace& place) {
  if (!isSequence(source)) failKind(source, type, place);
  type->list->clear(target);
  std::size_t index = 0;
  forEachElement(source, [&](const AnyReference& element) {
    appendElement(element, type, target, inside(place, "element", index++));
  });
}

void convertToTuple(const AnyReference& source, const TypeInterface* type, void* target,
                    const ConversionPlace& place) {
  if (!isSequence(source)) failKind(source, type, place);
  const std::size_t wanted = type->tuple->size(target);
  if (sequenceSize(source) != wanted)
    throw ConversionError(ConversionError::Reason::Value,
                          "cannot convert " + typeName(source.type()) + " of " +
                              std::to_string(sequenceSize(source)) + " elements to " +
                              typeName(type) + " of " + std::to_string(wanted) + describe(place));
  const FieldOrder order(annotationOf(source), annotationOf({type, target}));
  if (!order.isPossible()) failKind(source, type, place, ": their fields have other names");
  const auto convertMember = [&](const AnyReference& element, std::size_t index) {
    const AnyReference member = type->tuple->member(target, index);
    convertInto(element, member.type(), member.pointer(), inside(place, "element", index));
  };
  std::size_t index = 0;
  if (order.isByPosition()) {
    forEachElement(source, [&](const AnyReference& element) { convertMember(element, index++); });
  } else {
    for (; index < wanted; ++index)
      convertMember(source.type()->tuple->member(source.pointer(), order.sourceOf(index)), index);
  }
}

/// Calls `visit` with each key and value of a map, or of a list of pairs.
void forEachEntry(const AnyReference& source, const TypeInterface* type,
                  const ConversionPlace& place,
                  FunctionRef<void(const AnyReference& key, const AnyReference& value)> visit) {
  if (source.type()->kind == TypeKind::Map)
    return source.type()->map->forEach(source.pointer(), visit);
  if (source.type()->kind != TypeKind::List || !mayBePairs(*source.type()->list->elementType()))
    failKind(source, type, place);
  std::size_t index = 0;
  source.type()->list->forEach(source.pointer(), [&](const AnyReference& element) {
    const ConversionPlace itsPlace = inside(place, "element", index++);
    if (!isPair(element)) failValue(source, type, itsPlace, "an element is no pair");
    visitPair(element, visit);
  });
}

void convertToMap(const AnyReference& source, const TypeInterface* type, void* target,
                  const ConversionPlace& place) {
  type->map->clear(target);
  std::size_t index = 0;
  forEachEntry(source, type, place, [&](const AnyReference& key, const AnyReference& value) {
    AnyValue newKey = type->map->makeKey(target);
    AnyValue newValue = type->map->makeValue(target);
    convertInto(key, newKey.type(), newKey.asReference().pointer(), inside(place, "key", index));
    convertInto(value, newValue.type(), newValue.asReference().pointer(),
                inside(place, "value", index++));
    type->map->insert(target, std::move(newKey), std::move(newValue));
  });
  if (type->map->size(target) != index)
    failValue(source, type, place, "two of its keys become the same");
}

void convertToOptional(const AnyReference& source, const TypeInterface* type, void* target,
                       const ConversionPlace& place) {
  const bool isOptional = source.type()->kind == TypeKind::Optional;
  const AnyReference content =
      isOptional ? source.type()->optional->content(source.pointer()) : source;
  if (!content.isValid()) return type->optional->reset(target);
  const AnyReference added = type->optional->emplace(target);
  convertInto(content, added.type(), added.pointer(), {&place});
}

void convertFromOptional(const AnyReference& source, const TypeInterface* type, void* target,
                         const ConversionPlace& place) {
  const AnyReference content = source.type()->optional->content(source.pointer());
  if (!content.isValid()) failValue(source, type, place, "the optional is empty");
  convertInto(content, type, target, {&place});
}

void convertFromFuture(const AnyReference& source, const TypeInterface* type, void* target,
                       const ConversionPlace& place) {
  FutureOps::Ending ending;
  if (!source.type()->future->peek(source.pointer(), ending))
    failValue(source, type, place, "the future has not ended");
  if (!ending.value.isValid()) failValue(source, type, place, "the future failed: " + ending.error);
  convertInto(ending.value, type, target, {&place});
}

void convertToObject(const AnyReference& source, const TypeInterface* type, void* target,
                     const ConversionPlace& place) {
  if (source.type()->kind != TypeKind::Object) failKind(source, type, place);
  if (!type->object->set(target, source.type()->object->get(source.pointer())))
    failValue(source, type, place, "the object is of another class, or of another process");
}

bool isEmptyOptional(const AnyReference& value) {
  return value.isValid() && value.type()->kind == TypeKind::Optional &&
         !value.type()->optional->content(value.pointer()).isValid();
}

void convertNested(const AnyReference& source, const TypeInterface* type, void* target,
                   const ConversionPlace& place) {
  const NestingLevel level;
  if (source.type()->kind == TypeKind::Dynamic)
    return convertInto(source.type()->dynamic->content(source.pointer()), type, target, {&place});
  if (type->kind == TypeKind::Optional) return convertToOptional(source, type, target, place);
  if (source.type()->kind == TypeKind::Optional)
    return convertFromOptional(source, type, target, place);
  if (source.type()->kind == TypeKind::Future)
    return convertFromFuture(source, type, target, place);
  switch (type->kind) {
    case TypeKind::List:
      return convertToList(source, type, target, place);
    case TypeKind::Map:
      return convertToMap(source, type, target, place);
    case TypeKind::Tuple:
      return convertToTuple(source, type, target, place);
    case TypeKind::Object:
      return convertToObject(source, type, target, place);
    default:
      failKind(source, type, place);
  }
}

void convertFlat(const AnyReference& source, const TypeInterface* type, void* target,
                 const ConversionPlace& place) {
  if (type->kind >= TypeKind::Bool && type->kind <= TypeKind::Float)
    return convertToNumber(source, type, target, place);
  if (source.type()->kind != type->kind) failKind(source, type, place);
  if (type->bytes) type->bytes->assign(target, source.type()->bytes->view(source.pointer()));
}

}  // namespace

ConversionError::~ConversionError() = default;

void convertInto(const AnyReference& source, const TypeInterface* type, void* target,
                 const ConversionPlace& place) {
  if (type->kind == TypeKind::Dynamic && !sameType(source.type(), type))
    return type->dynamic->assign(target, isEmptyOptional(source) ? AnyReference() : source);
  if (!source.isValid()) {
    if (type->kind == TypeKind::Optional) return type->optional->reset(target);
    failKind(source, type, place);
  }
  // A type whose values carry a signature of their own takes the elements, not the whole value.
  if (sameType(source.type(), type) && !type->ownSignature && type->assign)
    return type->assign(target, source.pointer());
  if (source.type()->kind < TypeKind::List && type->kind < TypeKind::List)
    return convertFlat(source, type, target, place);
  convertNested(source, type, target, place);
}

AnyValue convertTo(const AnyReference& source, std::string_view signature,
                   const ConversionPlace& place) {
  AnyValue result = AnyValue::makeDefault(signature);
  convertInto(source, result.type(), result.asReference().pointer(), place);
  result.updateNesting();
  return result;
}

}  // namespace gv
