#include <gvtype/anyvalue.h>

#include <cstdint>
#include <new>
#include <stdexcept>

#include <gvtype/conversion.h>
#include <gvtype/genericvalues.h>
#include <gvtype/signature.h>

namespace gv {
namespace {

/// The C++ types that stand for signatures known at build time; null for every other signature.
const TypeInterface* builtInType(std::string_view signature) {
  const bool isList = signature.size() == 2 && signature[0] == 'a';
  if (signature.size() != 1 && !isList) return nullptr;
  const auto pick = [isList]<class T>() {
    return isList ? getType<std::vector<T>>() : getType<T>();
  };
  switch (signature.back()) {
    case 'b':
      return pick.template operator()<bool>();
    case 'c':
      return pick.template operator()<std::int8_t>();
    case 'y':
      return pick.template operator()<std::uint8_t>();
    case 'n':
      return pick.template operator()<std::int16_t>();
    case 'q':
      return pick.template operator()<std::uint16_t>();
    case 'i':
      return pick.template operator()<std::int32_t>();
    case 'u':
      return pick.template operator()<std::uint32_t>();
    case 'x':
      return pick.template operator()<std::int64_t>();
    case 't':
      return pick.template operator()<std::uint64_t>();
    case 'f':
      return pick.template operator()<float>();
    case 'd':
      return pick.template operator()<double>();
    case 's':
      return pick.template operator()<std::string>();
    case 'r':
      return pick.template operator()<Buffer>();
    case 'v':
      return pick.template operator()<AnyValue>();
    case 'V':
      return isList ? nullptr : getType<void>();
    default:
      return nullptr;
  }
}

}  // namespace

AnyValue::AnyValue(const AnyValue& other) : AnyValue(copyOf(other.asReference())) {}

AnyValue::AnyValue(AnyValue&& other) noexcept {
  moveFrom(other);
}

AnyValue& AnyValue::operator=(const AnyValue& other) {
  return *this = AnyValue(other);  // the copy first: `other` may be part of what this one holds
}

AnyValue& AnyValue::operator=(AnyValue&& other) noexcept {
  if (this == &other) return *this;
  AnyValue old;
  old.moveFrom(*this);
  moveFrom(other);
  return *this;
}

AnyValue::~AnyValue() {
  reset();
}

bool AnyValue::fitsInline(const TypeInterface* type) {
  return type->size <= inlineSize && type->alignment <= alignof(std::max_align_t) &&
         type->nothrowMove;
}

void* AnyValue::allocate(const TypeInterface* type) {
  if (fitsInline(type)) return inline_;
  void* memory = ::operator new(type->size, std::align_val_t(type->alignment));
  *reinterpret_cast<void**>(inline_) = memory;
  onHeap_ = true;
  return memory;
}

void AnyValue::takeOver(const TypeInterface* type, void* from) {
  void* memory = allocate(type);
  try {
    if (!type->move) throw std::runtime_error("cannot move a value of type " + typeName(type));
    type->move(memory, from);
  } catch (...) {
    if (onHeap_) ::operator delete(memory, std::align_val_t(type->alignment));
    onHeap_ = false;
    throw;
  }
  type_ = type;
}

void AnyValue::moveFrom(AnyValue& other) noexcept {
  if (!other.type_) return;
  if (other.onHeap_) {
    *reinterpret_cast<void**>(inline_) = *reinterpret_cast<void**>(other.inline_);
    onHeap_ = true;
  } else if (other.type_->size > 0) {
    other.type_->move(inline_, other.inline_);
    other.type_->destroy(other.inline_);
  }
  type_ = other.type_;
  other.type_ = nullptr;
  other.onHeap_ = false;
}

void AnyValue::reset() noexcept {
  if (!type_) return;
  void* memory = const_cast<void*>(storage());
  if (type_->destroy) type_->destroy(memory);
  if (onHeap_) ::operator delete(memory, std::align_val_t(type_->alignment));
  type_ = nullptr;
  onHeap_ = false;
}

AnyValue AnyValue::copyOf(const AnyReference& reference) {
  AnyValue result;
  const TypeInterface* type = reference.type();
  if (!type) return result;
  if (type->kind == TypeKind::Void) {
    result.type_ = type;
    return result;
  }
  if (!type->copy) throw std::runtime_error("cannot copy a value of type " + typeName(type));
  void* memory = result.allocate(type);
  try {
    type->copy(memory, reference.pointer());
  } catch (...) {
    if (result.onHeap_) ::operator delete(memory, std::align_val_t(type->alignment));
    result.onHeap_ = false;
    throw;
  }
  result.type_ = type;
  return result;
}

AnyValue AnyValue::make(const TypeInterface* type) {
  AnyValue result;
  if (type->kind == TypeKind::Void) {
    result.type_ = type;
    return result;
  }
  if (!type->construct)
    throw std::runtime_error("a value of type " + typeName(type) + " has no default");
  void* memory = result.allocate(type);
  try {
    type->construct(memory);
  } catch (...) {
    if (result.onHeap_) ::operator delete(memory, std::align_val_t(type->alignment));
    result.onHeap_ = false;
    throw;
  }
  result.type_ = type;
  return result;
}

AnyValue AnyValue::makeDefault(std::string_view signature) {
  if (const TypeInterface* type = builtInType(signature)) return make(type);
  if (signature.starts_with("a{"))
    return from(MapValue{.signature = std::string(signature), .entries = {}});
  if (signature.starts_with('a'))
    return from(ListValue{.signature = std::string(signature), .elements = {}});
  if (signature.starts_with('(')) {
    TupleValue tuple{.signature = std::string(signature), .members = {}};
    for (const std::string_view member : signatureMembers(signature))
      tuple.members.push_back(makeDefault(member));
    return from(std::move(tuple));
  }
  throw std::runtime_error("no value can be made of signature '" + std::string(signature) + "'");
}

bool operator==(const AnyValue& a, const AnyValue& b) {
  return compareValues(a.asReference(), b.asReference()) == 0;
}

bool operator<(const AnyValue& a, const AnyValue& b) {
  return compareValues(a.asReference(), b.asReference()) < 0;
}

}  // namespace gv
