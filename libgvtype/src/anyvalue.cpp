#include <gvtype/anyvalue.h>

#include <cstdint>
#include <new>

#include <gvtype/conversion.h>
#include <gvtype/genericvalues.h>
#include <gvtype/nesting.h>
#include <gvtype/object.h>
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
    case 'o':
      return pick.template operator()<Object<Empty>>();
    case 'V':
      return isList ? nullptr : getType<void>();
    default:
      return nullptr;
  }
}

[[noreturn]] void fail(const char* text, const TypeInterface* type) {
  throw ConversionError(ConversionError::Reason::Kind, text + typeName(type));
}

/// One removal of a value, with all that it holds. Contents that nest deeper than the limit wait in
/// `parked` until the stack is back at the outermost destructor.
struct Teardown {
  int level = 0;
  std::vector<AnyValue> parked;
};

thread_local Teardown* teardown = nullptr;

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

bool AnyValue::emplace(const TypeInterface* type, FunctionRef<bool(void* memory)> construct) {
  reset();
  void* memory = inline_;
  if (!fitsInline(type)) {
    memory = ::operator new(type->size, std::align_val_t(type->alignment));
    *reinterpret_cast<void**>(inline_) = memory;
    onHeap_ = true;
  }
  const auto giveBack = [&] {
    if (onHeap_) ::operator delete(memory, std::align_val_t(type->alignment));
    onHeap_ = false;
  };
  try {
    if (!construct(memory)) return giveBack(), false;
  } catch (...) {
    giveBack();
    throw;
  }
  type_ = type;
  return true;
}

void AnyValue::hold(const TypeInterface* type, FunctionRef<void(void* memory)> construct) {
  emplace(type, [&](void* memory) { return construct(memory), true; });
  updateNesting();
}

void AnyValue::updateNesting() {
  if (!type_ || type_->kind < TypeKind::List) return;
  const int nesting = nestingOf(asReference());
  if (nesting >= NestingLevel::limit) NestingLevel::refuse();
  nesting_ = static_cast<std::uint8_t>(nesting);
}

void AnyValue::takeOver(const TypeInterface* type, void* from) {
  if (!type->move) fail("cannot move a value of type ", type);
  hold(type, [&](void* memory) { type->move(memory, from); });
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
  nesting_ = std::exchange(other.nesting_, std::uint8_t{0});
  other.type_ = nullptr;
  other.onHeap_ = false;
}

void AnyValue::reset() noexcept {
  if (!type_) return;
  if (type_->kind < TypeKind::List)
    destroyContent();
  else
    destroyNested();
}

void AnyValue::destroyContent() noexcept {
  void* memory = const_cast<void*>(storage());
  if (type_->destroy) type_->destroy(memory);
  if (onHeap_) ::operator delete(memory, std::align_val_t(type_->alignment));
  type_ = nullptr;
  onHeap_ = false;
  nesting_ = 0;
}

void AnyValue::destroyNested() noexcept {
  if (teardown && teardown->level == NestingLevel::limit) {
    try {
      teardown->parked.push_back(std::move(*this));
      return;
    } catch (...) {  // no memory to park it: the stack it is
    }
  }
  Teardown outermost;
  Teardown* const current = teardown ? teardown : &outermost;
  teardown = current;
  ++current->level;
  destroyContent();
  --current->level;
  if (current != &outermost) return;
  while (!outermost.parked.empty()) {
    AnyValue next = std::move(outermost.parked.back());
    outermost.parked.pop_back();
  }
  teardown = nullptr;
}

AnyValue AnyValue::copyOf(const AnyReference& reference) {
  AnyValue result;
  const TypeInterface* type = reference.type();
  if (!type) return result;
  if (type->kind < TypeKind::List) {
    result.hold(type, [&](void* memory) {
      if (type->copy) type->copy(memory, reference.pointer());
    });
    return result;
  }
  if (!type->copy) fail("cannot copy a value of type ", type);
  const NestingLevel level;
  result.hold(type, [&](void* memory) { type->copy(memory, reference.pointer()); });
  return result;
}

AnyValue AnyValue::make(const TypeInterface* type) {
  AnyValue result;
  if (!type->construct && type->kind != TypeKind::Void)
    fail("there is no default value of type ", type);
  result.hold(type, [&](void* memory) {
    if (type->construct) type->construct(memory);
  });
  return result;
}

AnyValue AnyValue::makeDefault(std::string_view signature) {
  if (const TypeInterface* type = builtInType(signature)) return make(type);
  if (signature.starts_with("a{"))
    return from(MapValue{.signature = std::string(signature), .entries = {}});
  if (signature.starts_with('a'))
    return from(ListValue{.signature = std::string(signature), .elements = {}});
  if (signature.starts_with('m'))
    return from(OptionalValue{.signature = std::string(signature), .content = {}});
  if (signature.starts_with('(')) {
    TupleValue tuple{.signature = std::string(signature), .members = {}};
    for (const std::string_view member : signatureMembers(signature))
      tuple.members.push_back(makeDefault(member));
    return from(std::move(tuple));
  }
  throw ConversionError(ConversionError::Reason::Kind,
                        "no value can be made of signature '" + std::string(signature) + "'");
}

bool operator==(const AnyValue& a, const AnyValue& b) {
  return compareValues(a.asReference(), b.asReference()) == 0;
}

bool operator<(const AnyValue& a, const AnyValue& b) {
  return compareValues(a.asReference(), b.asReference()) < 0;
}

}  // namespace gv
