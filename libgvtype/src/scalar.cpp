#include "scalar.h"

#include <charconv>
#include <cstring>

namespace gv {
namespace {

template <class T>
T load(const void* from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

template <class Signed, class Unsigned>
std::uint64_t loadExtended(const AnyReference& source) {
  return source.type()->isSigned
             ? static_cast<std::uint64_t>(std::int64_t{load<Signed>(source.pointer())})
             : std::uint64_t{load<Unsigned>(source.pointer())};
}

template <class T>
void store(void* target, std::uint64_t bits) {
  const T value = static_cast<T>(bits);
  std::memcpy(target, &value, sizeof value);
}

}  // namespace

Integer readInteger(const AnyReference& source) {
  const TypeInterface* type = source.type();
  if (type->kind == TypeKind::Bool) return {load<std::uint8_t>(source.pointer()), false};
  switch (type->size) {
    case 1:
      return {loadExtended<std::int8_t, std::uint8_t>(source), type->isSigned};
    case 2:
      return {loadExtended<std::int16_t, std::uint16_t>(source), type->isSigned};
    case 4:
      return {loadExtended<std::int32_t, std::uint32_t>(source), type->isSigned};
    default:
      return {load<std::uint64_t>(source.pointer()), type->isSigned};
  }
}

double readFloat(const AnyReference& source) {
  return source.type()->size == 4 ? static_cast<double>(load<float>(source.pointer()))
                                  : load<double>(source.pointer());
}

void writeInteger(const TypeInterface* type, void* target, std::uint64_t bits) {
  if (type->kind == TypeKind::Bool) {
    store<bool>(target, bits);
    return;
  }
  switch (type->size) {
    case 1:
      return store<std::uint8_t>(target, bits);
    case 2:
      return store<std::uint16_t>(target, bits);
    case 4:
      return store<std::uint32_t>(target, bits);
    default:
      return store<std::uint64_t>(target, bits);
  }
}

void writeFloat(const TypeInterface* type, void* target, double number) {
  if (type->size == 4)
    *static_cast<float*>(target) = static_cast<float>(number);
  else
    *static_cast<double*>(target) = number;
}

bool fitsInteger(const Integer& integer, const TypeInterface* type) {
  if (type->kind == TypeKind::Bool) return integer.bits <= 1;
  const int bits = static_cast<int>(type->size * 8) - (type->isSigned ? 1 : 0);
  if (integer.isNegative()) return type->isSigned && integer.magnitude() <= (1ull << bits);
  return bits == 64 || integer.bits < (1ull << bits);
}

std::string scalarText(const AnyReference& source) {
  char text[32];
  if (source.type()->kind == TypeKind::Float) {
    // The shortest text that reads as the same number.
    const auto end = source.type()->size == 4
                         ? std::to_chars(text, text + sizeof text, load<float>(source.pointer()))
                         : std::to_chars(text, text + sizeof text, readFloat(source));
    return {text, end.ptr};
  }
  const Integer integer = readInteger(source);
  return (integer.isNegative() ? "-" : "") + std::to_string(integer.magnitude());
}

}  // namespace gv
