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
  return toValue(dynamic.type()->dynamic->content(dynamic.pointer()));
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
  const gv::TypeInterface* type = content.type();
  if (type->kind < TypeKind::List) return flatToValue(content);
  if (const JXValue* value = content.as<JXValue>()) return *value;
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

// Arrays and bytes are read in place, without a copy: the storage of their types is the JXValue
// that holds them. These stand for the types in their records.
struct ArrayContent {};
struct BinaryContent {};

JXValue& valueIn(void* storage) {
  return *static_cast<JXValue*>(storage);
}

/// The type of a JXValue that holds one kind of content.
gv::TypeInterface contentType(const std::type_info& name, TypeKind kind, char code) {
  gv::TypeInterface type = *gv::getType<JXValue>();
  type.info = &name;
  type.kind = kind;
  type.code = code;
  type.dynamic = nullptr;
  return type;
}

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
      .clear = [](void* array) { valueIn(array).arraySetSize(0); },
      .emplace =
          [](void* array) {
            JXValue& elements = valueIn(array);
            return AnyReference::from(elements[elements.getSize()]);
          },
      .push =
          [](void* array, const void* element) {
            valueIn(array).arrayPush(*static_cast<const JXValue*>(element));
          },
  };
  static const gv::TypeInterface type = [] {
    gv::TypeInterface list = contentType(typeid(ArrayContent), TypeKind::List, 0);
    list.list = &ops;
    return list;
  }();
  return &type;
}

const gv::TypeInterface* binaryType() {
  static const gv::BytesOps ops = {
      .view =
          [](const void* binary) {
            const JXValue& value = *static_cast<const JXValue*>(binary);
            if (value.kind() != JXValue::Kind::Binary) return std::string_view();  // a new one
            const auto& bytes = value.toBinary();
            return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
          },
      .assign =
          [](void* binary, std::string_view bytes) {
            valueIn(binary) = JXValue::binary(bytes.data(), bytes.size());
          },
      .share = nullptr,
  };
  static const gv::TypeInterface type = [] {
    gv::TypeInterface raw = contentType(typeid(BinaryContent), TypeKind::Raw, 'r');
    raw.bytes = &ops;
    return raw;
  }();
  return &type;
}

template <class T, class Storage>
AnyReference in(const Storage& storage) {
  return AnyReference::from(*std::get_if<T>(&storage));
}

}  // namespace

gv::AnyReference gv::TypeTraits<JX::JXValue>::content(const JXValue& value) {
  switch (value.kind()) {
    case JXValue::Kind::Invalid:
      return {};
    case JXValue::Kind::Binary:
      return {binaryType(), const_cast<JXValue*>(&value)};
    case JXValue::Kind::Array:
      return {arrayType(), const_cast<JXValue*>(&value)};
    case JXValue::Kind::Bool:
      return in<bool>(value.storage_);
    case JXValue::Kind::Int:
      return in<std::int32_t>(value.storage_);
    case JXValue::Kind::UInt:
      return in<std::uint32_t>(value.storage_);
    case JXValue::Kind::Int64:
      return in<std::int64_t>(value.storage_);
    case JXValue::Kind::UInt64:
      return in<std::uint64_t>(value.storage_);
    case JXValue::Kind::Float:
      return in<double>(value.storage_);
    case JXValue::Kind::String:
      return in<std::string>(value.storage_);
  }
  return {};
}

void gv::TypeTraits<JX::JXValue>::describe(TypeInterface& type) {
  type.kind = TypeKind::Dynamic;
  static const DynamicOps ops = {
      .content = [](const void* dynamic) { return content(*static_cast<const JXValue*>(dynamic)); },
      // Built whole before it is assigned: the content may be a part of the value itself.
      .assign = [](void* dynamic,
                   const AnyReference& content) { valueIn(dynamic) = toValue(content); },
  };
  type.dynamic = &ops;
}
