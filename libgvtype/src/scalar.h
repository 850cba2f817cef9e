#pragma once

#include <cstdint>
#include <string>

#include <gvtype/anyreference.h>

namespace gv {

/// An integer or a bool of any size, sign-extended to 64 bits.
struct Integer {
  std::uint64_t bits = 0;
  bool isSigned = false;

  bool isNegative() const { return isSigned && static_cast<std::int64_t>(bits) < 0; }
  std::uint64_t magnitude() const { return isNegative() ? 0 - bits : bits; }
};

/// Scalars by reference. Each takes a value of the kind it names (readInteger also a bool).
Integer readInteger(const AnyReference& source);
double readFloat(const AnyReference& source);
/// Writes the low bits; the caller has checked that they fit.
void writeInteger(const TypeInterface* type, void* target, std::uint64_t bits);
void writeFloat(const TypeInterface* type, void* target, double number);
bool fitsInteger(const Integer& integer, const TypeInterface* type);
/// The number as text, for messages.
std::string scalarText(const AnyReference& source);

}  // namespace gv
