#include <gvtype/anyfunction.h>

#include <boost/container/small_vector.hpp>

#include <gvtype/conversion.h>

namespace gv {
namespace {

std::string countText(std::size_t count) {
  return std::to_string(count) + (count == 1 ? " argument" : " arguments");
}

AnyArguments collectTail(const GenericFunctionParameters& arguments, std::size_t first) {
  AnyArguments tail;
  for (std::size_t i = first; i < arguments.size(); ++i)
    tail.args.push_back(AnyValue::copyOf(arguments[i]));
  return tail;
}

}  // namespace

AnyFunction AnyFunction::withInstance() const {
  AnyFunction method = *this;
  method.hasInstance_ = body_ != nullptr;
  return method;
}

AnyReference AnyFunction::call(const GenericFunctionParameters& arguments) const {
  if (!body_) throw std::runtime_error("the function is empty");
  const std::size_t first = hasInstance_ ? 1 : 0;
  const std::size_t wanted = body_->parameters.size();
  const std::size_t given = arguments.size() < first ? 0 : arguments.size() - first;
  if (given < wanted || (given > wanted && !body_->hasTail))
    throw std::runtime_error("expected " + std::string(body_->hasTail ? "at least " : "") +
                             countText(wanted) + ", got " + std::to_string(given));

  boost::container::small_vector<void*, 8> addresses;
  boost::container::small_vector<AnyValue, 4> converted;
  converted.reserve(wanted);  // addresses point into it
  for (std::size_t i = 0; i < wanted; ++i) {
    const AnyReference& argument = arguments[first + i];
    const TypeInterface* type = body_->parameters[i];
    if (sameType(argument.type(), type)) {
      addresses.push_back(argument.pointer());
      continue;
    }
    if (!type->construct)
      throw ConversionError(ConversionError::Reason::Kind,
                            "cannot convert " + typeName(argument.type()) + " to " +
                                typeName(type) + " (argument " + std::to_string(i + 1) + ")");
    AnyValue& value = converted.emplace_back(AnyValue::make(type));
    void* address = value.asReference().pointer();
    convertInto(argument, type, address, {nullptr, "argument", i + 1});
    addresses.push_back(address);
  }
  AnyArguments tail;
  if (body_->hasTail) {
    tail = collectTail(arguments, first + wanted);
    addresses.push_back(&tail);
  }
  return body_->invoke(addresses.data());
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
  if (body_) types.insert(types.end(), body_->parameters.begin(), body_->parameters.end());
  return types;
}

}  // namespace gv
