#include <gvtype/anyreference.h>

#include <gvtype/conversion.h>
#include <gvtype/genericfunctionparameters.h>

namespace gv {

std::string AnyReference::signature() const {
  if (!type_) return {};
  if (type_->ownSignature) return type_->ownSignature(pointer_);
  std::string text;
  appendSignature(text, type_);
  return text;
}

AnyReference AnyReference::clone() const {
  if (!type_) return {};
  auto owner = std::make_shared<AnyValue>(AnyValue::copyOf(*this));
  void* pointer = owner->asReference().pointer();
  return {type_, pointer, std::move(owner)};
}

void AnyReference::convertTo(const TypeInterface* type, void* target) const {
  convertInto(*this, type, target);
}

GenericFunctionParameters GenericFunctionParameters::copy() const {
  return ownedCopies(*this);
}

GenericFunctionParameters ownedCopies(std::span<const AnyReference> arguments) {
  GenericFunctionParameters copies;
  copies.reserve(arguments.size());
  for (const AnyReference& argument : arguments)
    copies.push_back(argument.isOwning() ? argument : argument.clone());
  return copies;
}

}  // namespace gv
