#include <gvtype/anyfunction.h>

#include <array>
#include <memory>
#include <stdexcept>

#include <boost/container/small_vector.hpp>

#include "exactarguments.h"

namespace gv {
namespace {

constexpr std::size_t fewArguments = 8;

AnyArguments collectTail(std::span<const AnyReference> arguments) {
  AnyArguments tail;
  for (const AnyReference& argument : arguments) tail.args.push_back(AnyValue::copyOf(argument));
  return tail;
}

/// A place for one result of a type known at run time; destroys what was made in it.
class ResultStorage {
 public:
  explicit ResultStorage(const TypeInterface* type)
      : type_(type), place_(isInline() ? inline_ : ::operator new(type->size, alignment())) {}
  ~ResultStorage() {
    if (isFull_ && type_->destroy) type_->destroy(place_);
    if (!isInline()) ::operator delete(place_, alignment());
  }
  ResultStorage(const ResultStorage&) = delete;
  ResultStorage& operator=(const ResultStorage&) = delete;

  void* place() { return place_; }
  void setFull() { isFull_ = true; }

 private:
  bool isInline() const {
    return type_->size <= sizeof(inline_) && type_->alignment <= alignof(std::max_align_t);
  }
  std::align_val_t alignment() const { return std::align_val_t(type_->alignment); }

  const TypeInterface* const type_;
  bool isFull_ = false;
  void* const place_;
  alignas(std::max_align_t) unsigned char inline_[64];
};

}  // namespace

AnyFunction AnyFunction::withInstance() const {
  AnyFunction method = *this;
  method.hasInstance_ = body_ != nullptr;
  return method;
}

AnyReference AnyFunction::call(const GenericFunctionParameters& arguments) const {
  if (!body_ || body_->returnType->kind == TypeKind::Void) {
    invoke(arguments, nullptr);
    return AnyReference::ofVoid();
  }
  auto result = std::make_shared<ResultStorage>(body_->returnType);
  invoke(arguments, result->place());
  result->setFull();
  void* place = result->place();
  return {body_->returnType, place, std::move(result)};
}

void AnyFunction::callInto(std::span<const AnyReference> arguments, void* result) const {
  if (result || !body_ || body_->returnType->kind == TypeKind::Void)
    return invoke(arguments, result);
  ResultStorage dropped(body_->returnType);
  invoke(arguments, dropped.place());
  dropped.setFull();
}

void AnyFunction::invoke(std::span<const AnyReference> arguments, void* result) const {
  if (!body_) throw std::runtime_error("the function is empty");
  const auto given = arguments.subspan(hasInstance_ && !arguments.empty() ? 1 : 0);
  if (invokeExactly(given, result)) return;
  const std::span<const TypeInterface* const> types = body_->parameters;
  const ExactArguments exact(given, types, body_->hasTail);
  boost::container::small_vector<void*, fewArguments> addresses;
  for (const AnyReference& reference : exact.references()) addresses.push_back(reference.pointer());
  AnyArguments tail;
  if (body_->hasTail) {
    tail = collectTail(given.subspan(types.size()));
    addresses.push_back(&tail);
  }
  body_->invoke(body_.get(), addresses.data(), result);
}

Signature AnyFunction::returnSignature() const {
  std::string text;
  if (body_) appendSignature(text, body_->returnType);
  return Signature(body_ ? std::move(text) : "V");
}

Signature AnyFunction::parametersSignature(bool dropFirst) const {
  std::string text = "(";
  if (body_) {
    if (hasInstance_ && !dropFirst) text += 'o';
    for (std::size_t i = dropFirst && !hasInstance_ ? 1 : 0; i < body_->parameters.size(); ++i)
      appendSignature(text, body_->parameters[i]);
    if (body_->hasTail) text += '*';
  }
  return Signature(text + ")");
}

std::vector<const TypeInterface*> AnyFunction::parameterTypes() const {
  std::vector<const TypeInterface*> types;
  if (hasInstance_) types.push_back(nullptr);
  types.insert(types.end(), argumentTypes().begin(), argumentTypes().end());
  return types;
}

}  // namespace gv
