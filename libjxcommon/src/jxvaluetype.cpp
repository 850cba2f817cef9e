#include <jxcommon/jxvaluetype.h>

#include <cstring>

#include <gvtype/conversion.h>
#include <gvtype/nesting.h>

namespace {

using gv::AnyReference;
using gv::ConversionError;
using gv::TypeKind;
using JX::JXValue;

JXValue toValue(const AnyReference& content);

template <class T>
T read(const AnyReference& number) {
  T value;
  std::memcpy(&value, number.pointer(), sizeof value);
  return value;
}

// JXValue has no integers below 32 bits: they become the 32 bits of their sign.
JXValue integerToValue(const AnyReference& integer) {
  const bool isSigned = integer.type()->isSigned;
  switch (integer.type()->size) {
    case 1:
      return isSigned ? JXValue(int{read<std::int8_t>(integer)})
                      : JXValue(unsigned{read<std::uint8_t>(integer)});
    case 2:
      return isSigned ? JXValue(int{read<std::int16_t>(integer)})
                      : JXValue(unsigned{read<std::uint16_t>(integer)});
    case 4:
      return isSigned ? JXValue(read<std::int32_t>(integer))
                      : JXValue(read<std::uint32_t>(integer));
    default:
      return isSigned ? JXValue(read<std::int64_t>(integer))
                      : JXValue(read<std::uint64_t>(integer));
  }
}

JXValue emptyArray() {
  JXValue array;
  array.arraySetSize(0);
  return array;
}

JXValue listToValue(const AnyReference& list) {
  JXValue array = emptyArray();
  list.type()->list->forEach(
      list.pointer(), [&](const AnyReference& element) { array.arrayPush(toValue(element)); });
  return array;
}

JXValue tupleToValue(const AnyReference& tuple) {
  const gv::TupleOps& ops = *tuple.type()->tuple;
  JXValue array = emptyArray();
  for (std::size_t i = 0; i < ops.size(tuple.pointer()); ++i)
    array.arrayPush(toValue(ops.member(tuple.pointer(), i)));
  return array;
}

JXValue mapToValue(const AnyReference& map) {
  JXValue array = emptyArray();
  map.type()->map->forEach(map.pointer(), [&](const AnyReference& key, const AnyReference& value) {
    JXValue entry;
    entry.arrayPush(toValue(key));
    entry.arrayPush(toValue(value));
    array.arrayPush(std::move(entry));
  });
  return array;
}

JXValue dynamicToValue(const AnyReference& dynamic) {
  JXValue value;
  dynamic.type()->dynamic->visit(dynamic.pointer(),
                                 [&](const AnyReference& content) { value = toValue(content); });
  return value;
}

JXValue flatToValue(const AnyReference& content) {
  const gv::TypeInterface* type = content.type();
  switch (type->kind) {
    case TypeKind::Bool:
      return read<bool>(content);
    case TypeKind::Int:
      return integerToValue(content);
    case TypeKind::Float:
      return type->size == sizeof(float) ? JXValue(read<float>(content))
                                         : JXValue(read<double>(content));
    case TypeKind::String:
      return std::string(type->bytes->view(content.pointer()));
    case TypeKind::Raw: {
      const std::string_view bytes = type->bytes->view(content.pointer());
      return JXValue::binary(bytes.data(), bytes.size());
    }
    default:
      return {};
  }
}

JXValue toValue(const AnyReference& content) {
  if (!content.isValid()) return {};
  if (const JXValue* value = content.as<JXValue>()) return *value;
  const gv::TypeInterface* type = content.type();
  if (type->kind < TypeKind::List) return flatToValue(content);
  const gv::NestingLevel level;
  switch (type->kind) {
    case TypeKind::List:
      return listToValue(content);
    case TypeKind::Tuple:
      return tupleToValue(content);
    case TypeKind::Map:
      return mapToValue(content);
    case TypeKind::Optional:
      return toValue(type->optional->content(content.pointer()));
    case TypeKind::Dynamic:
      return dynamicToValue(content);
    default:
      throw ConversionError(ConversionError::Reason::Kind,
                            "cannot convert " + gv::typeName(type) + " to dynamic");
  }
}

/// Names the type of an array's content for the type system; no value of it is ever made.
struct ArrayContent {};

JXValue& arrayIn(void* value) {
  return *static_cast<JXValue*>(value);
}

/// A list of dynamic values whose storage is the JXValue that holds the array: arrays are read in
/// place, without a copy.
const gv::TypeInterface* arrayType() {
  static const gv::ListOps ops = {
      .elementType = [] { return gv::getType<JXValue>(); },
      .size =
          [](const void* array) {
            return static_cast<std::size_t>(static_cast<const JXValue*>(array)->getSize());
          },
      .forEach =
          [](const void* array, gv::FunctionRef<void(const AnyReference&)> visit) {
            const JXValue& elements = *static_cast<const JXValue*>(array);
            const int size = elements.getSize();
            for (int i = 0; i < size; ++i) visit(AnyReference::from(elements[i]));
          },
      .clear = [](void* array) { arrayIn(array).arraySetSize(0); },
      .emplace =
          [](void* array) {
            JXValue& elements = arrayIn(array);
            return AnyReference::from(elements[elements.getSize()]);
          },
      .push =
          [](void* array, const void* element) {
            arrayIn(array).arrayPush(*static_cast<const JXValue*>(element));
          },
  };
  static const gv::TypeInterface type = [] {
    gv::TypeInterface list = *gv::getType<JXValue>();
    list.info = &typeid(ArrayContent);
    list.kind = TypeKind::List;
    list.code = 0;
    list.dynamic = nullptr;
    list.list = &ops;
    return list;
  }();
  return &type;
}

void visitContent(const JXValue& value, gv::FunctionRef<void(const AnyReference&)> visit) {
  const auto give = [&](const auto& content) { visit(AnyReference::from(content)); };
  switch (value.kind()) {
    case JXValue::Kind::Invalid:
      return visit(AnyReference());
    case JXValue::Kind::Bool:
      return give(value.toBool());
    case JXValue::Kind::Int:
      return give(value.toInt());
    case JXValue::Kind::UInt:
      return give(value.toUInt());
    case JXValue::Kind::Int64:
      return give(value.toInt64());
    case JXValue::Kind::UInt64:
      return give(value.toUInt64());
    case JXValue::Kind::Float:
      return give(value.toDouble());
    case JXValue::Kind::String:
      return give(value.toString());
    case JXValue::Kind::Binary:
      return give(gv::Buffer(value.toBinary().data(), value.toBinary().size()));
    case JXValue::Kind::Array:
      return visit({arrayType(), const_cast<JXValue*>(&value)});
  }
}

}  // namespace

void gv::TypeTraits<JX::JXValue>::describe(TypeInterface& type) {
  type.kind = TypeKind::Dynamic;
  static const DynamicOps ops = {
      .visit =
          [](const void* dynamic, FunctionRef<void(const AnyReference&)> visit) {
            visitContent(*static_cast<const JXValue*>(dynamic), visit);
          },
      // Built whole before it is assigned: the content may be a part of the value itself.
      .assign = [](void* dynamic,
                   const AnyReference& content) { arrayIn(dynamic) = toValue(content); },
  };
  type.dynamic = &ops;
}
