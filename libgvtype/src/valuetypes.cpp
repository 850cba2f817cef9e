// Descriptions of the types that are no templates: strings, raw bytes, dynamic and generic values.

#include <gvtype/futuretype.h>
#include <gvtype/genericvalues.h>
#include <gvtype/signature.h>

namespace gv {
namespace {

/// Makes `place` the default of a type; refers to what is to be filled in.
AnyReference fill(AnyValue& place, std::string_view signature) {
  if (signature == "v") return AnyReference::from(place);
  place = AnyValue::makeDefault(signature);
  return place.asReference();
}

}  // namespace

void TypeTraits<std::string>::describe(TypeInterface& type) {
  type.kind = TypeKind::String;
  static const BytesOps ops = {
      .view = [](const void* value) -> std::string_view {
        return *static_cast<const std::string*>(value);
      },
      .assign = [](void* value,
                   std::string_view bytes) { static_cast<std::string*>(value)->assign(bytes); },
      .share = nullptr,
  };
  type.bytes = &ops;
}

void TypeTraits<Buffer>::describe(TypeInterface& type) {
  type.kind = TypeKind::Raw;
  static const BytesOps ops = {
      .view = [](const void* value) { return static_cast<const Buffer*>(value)->view(); },
      .assign =
          [](void* value, std::string_view bytes) {
            *static_cast<Buffer*>(value) = Buffer(bytes.data(), bytes.size());
          },
      .share =
          [](void* value, std::string_view bytes, const std::shared_ptr<const void>& owner) {
            *static_cast<Buffer*>(value) = Buffer(bytes, owner);
          },
  };
  type.bytes = &ops;
}

void TypeTraits<AnyValue>::describe(TypeInterface& type) {
  type.kind = TypeKind::Dynamic;
  static const DynamicOps ops = {
      .content =
          [](const void* value) { return static_cast<const AnyValue*>(value)->asReference(); },
      .assign =
          [](void* value, const AnyReference& content) {
            *static_cast<AnyValue*>(value) = AnyValue::copyOf(content);
          },
  };
  type.dynamic = &ops;
}

void TypeTraits<ListValue>::describe(TypeInterface& type) {
  type.kind = TypeKind::List;
  type.ownSignature = [](const void* value) -> const std::string& {
    return static_cast<const ListValue*>(value)->signature;
  };
  static const ListOps ops = {
      .elementType = [] { return getType<AnyValue>(); },
      .size = [](const void* list) { return static_cast<const ListValue*>(list)->elements.size(); },
      .forEach =
          [](const void* list, FunctionRef<void(const AnyReference&)> visit) {
            for (const AnyValue& element : static_cast<const ListValue*>(list)->elements)
              visit(element.asReference());
          },
      .clear = [](void* list) { static_cast<ListValue*>(list)->elements.clear(); },
      .emplace =
          [](void* list) {
            auto& self = *static_cast<ListValue*>(list);
            const std::string_view element = std::string_view(self.signature).substr(1);
            return fill(self.elements.emplace_back(), element);
          },
      .push = nullptr,
  };
  type.list = &ops;
}

void TypeTraits<MapValue>::describe(TypeInterface& type) {
  type.kind = TypeKind::Map;
  type.ownSignature = [](const void* value) -> const std::string& {
    return static_cast<const MapValue*>(value)->signature;
  };
  static const auto partOf = [](const void* map, bool wantsKey) {
    // "a{KV}": the key's type starts behind the brace, the value's behind the key's.
    const std::string_view inner =
        std::string_view(static_cast<const MapValue*>(map)->signature).substr(2);
    const std::size_t keyLength = signatureLength(inner);
    return AnyValue::makeDefault(wantsKey ? inner.substr(0, keyLength)
                                          : inner.substr(keyLength, inner.size() - keyLength - 1));
  };
  static const MapOps ops = {
      .size = [](const void* map) { return static_cast<const MapValue*>(map)->entries.size(); },
      .forEach =
          [](const void* map, FunctionRef<void(const AnyReference&, const AnyReference&)> visit) {
            for (const auto& [key, value] : static_cast<const MapValue*>(map)->entries)
              visit(key.asReference(), value.asReference());
          },
      .clear = [](void* map) { static_cast<MapValue*>(map)->entries.clear(); },
      .makeKey = [](const void* map) { return partOf(map, true); },
      .makeValue = [](const void* map) { return partOf(map, false); },
      .insert =
          [](void* map, AnyValue&& key, AnyValue&& value) {
            static_cast<MapValue*>(map)->entries.emplace_back(std::move(key), std::move(value));
          },
  };
  type.map = &ops;
}

void TypeTraits<TupleValue>::describe(TypeInterface& type) {
  type.kind = TypeKind::Tuple;
  type.ownSignature = [](const void* value) -> const std::string& {
    return static_cast<const TupleValue*>(value)->signature;
  };
  static const TupleOps ops = {
      .size =
          [](const void* tuple) { return static_cast<const TupleValue*>(tuple)->members.size(); },
      .member =
          [](const void* tuple, std::size_t index) {
            return static_cast<const TupleValue*>(tuple)->members[index].asReference();
          },
  };
  type.tuple = &ops;
}

void TypeTraits<OptionalValue>::describe(TypeInterface& type) {
  type.kind = TypeKind::Optional;
  type.ownSignature = [](const void* value) -> const std::string& {
    return static_cast<const OptionalValue*>(value)->signature;
  };
  static const OptionalOps ops = {
      .elementType = [] { return getType<AnyValue>(); },
      .content =
          [](const void* value) {
            const auto& [signature, content] = *static_cast<const OptionalValue*>(value);
            if (!content) return AnyReference();
            // An optional that holds an empty dynamic value is not empty.
            return signature == "mv" ? AnyReference::from(*content) : content->asReference();
          },
      .reset = [](void* value) { static_cast<OptionalValue*>(value)->content.reset(); },
      .emplace =
          [](void* value) {
            auto& [signature, content] = *static_cast<OptionalValue*>(value);
            return fill(content.emplace(), std::string_view(signature).substr(1));
          },
  };
  type.optional = &ops;
}

}  // namespace gv
