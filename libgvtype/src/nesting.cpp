#include <gvtype/nesting.h>

#include <algorithm>

#include <gvtype/conversion.h>

namespace gv {
namespace {

thread_local int levels = 0;

bool isFlat(const TypeInterface* type) {
  return type->kind < TypeKind::List;
}

/// The deepest of the values inside; where the types say that none nests, they are not looked at.
int deepestIn(const AnyReference& value) {
  const TypeInterface* type = value.type();
  int deepest = 0;
  const auto add = [&](const AnyReference& inner) {
    if (inner.isValid()) deepest = std::max(deepest, nestingOf(inner));
  };
  switch (type->kind) {
    case TypeKind::List:
      if (!isFlat(type->list->elementType())) type->list->forEach(value.pointer(), add);
      break;
    case TypeKind::Map:
      if (!type->memberType || !isFlat(type->memberType(0)) || !isFlat(type->memberType(1)))
        type->map->forEach(value.pointer(), [&](const AnyReference& key, const AnyReference& item) {
          add(key);
          add(item);
        });
      break;
    case TypeKind::Tuple:
      for (std::size_t i = 0; i < type->tuple->size(value.pointer()); ++i)
        add(type->tuple->member(value.pointer(), i));
      break;
    case TypeKind::Optional:
      add(type->optional->content(value.pointer()));
      break;
    default:
      add(type->dynamic->content(value.pointer()));
  }
  return deepest;
}

}  // namespace

NestingLevel::NestingLevel() {
  if (isExhausted()) refuse();
  ++levels;
}

NestingLevel::~NestingLevel() {
  --levels;
}

bool NestingLevel::isExhausted() {
  return levels == limit;
}

void NestingLevel::refuse() {
  throw ConversionError(ConversionError::Reason::Value,
                        "a value nests deeper than " + std::to_string(limit) + " levels");
}

int nestingOf(const AnyReference& value) {
  const TypeKind kind = value.type()->kind;
  if (kind < TypeKind::List || kind > TypeKind::Dynamic) return 0;
  if (const AnyValue* dynamic = value.as<AnyValue>()) return 1 + dynamic->nesting();
  const NestingLevel level;
  return 1 + deepestIn(value);
}

}  // namespace gv
