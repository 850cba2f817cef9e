#include "src/rpc/argumentlist.h"

#include <memory>

#include "src/rpc/releasedelsewhere.h"
#include "src/wire/valuereader.h"

namespace gv::rpc {
namespace {

/// May hold objects of users.
struct Values {
  std::vector<AnyValue> targets;
  std::vector<AnyValue> tail;
};

std::vector<AnyValue> makeTargets(const AnyFunction& function) {
  std::vector<AnyValue> targets;
  for (const TypeInterface* type : function.parameterTypes())
    if (type) targets.push_back(AnyValue::make(type));
  return targets;
}

std::vector<AnyValue> makeTargets(const Signature& parameters) {
  std::vector<AnyValue> targets;
  for (const std::string_view type : signatureMembers(parameters.toString()))
    if (type != "*") targets.push_back(AnyValue::makeDefault(type));
  return targets;
}

GenericFunctionParameters read(std::span<const char> payload, std::vector<AnyValue> targets,
                               bool hasTail, const wire::Limits& limits,
                               wire::IncomingObjects& objects) {
  const auto values = releasedElsewhere(Values{std::move(targets), {}});
  std::vector<AnyReference> references;
  for (const AnyValue& target : values->targets) references.push_back(target.asReference());
  wire::readArguments(payload, references, hasTail ? &values->tail : nullptr, limits, &objects);

  GenericFunctionParameters arguments;
  for (const auto* group : {&values->targets, &values->tail})
    for (const AnyValue& value : *group) {
      const AnyReference reference = value.asReference();
      arguments.emplace_back(reference.type(), reference.pointer(), values);
    }
  return arguments;
}

bool hasTail(const Signature& parameters) {
  return parameters.toString().ends_with("*)");
}

}  // namespace

GenericFunctionParameters readArgumentList(std::span<const char> payload,
                                           const Object<Empty>& object, const MetaMethod& method,
                                           const wire::Limits& limits,
                                           wire::IncomingObjects& objects) {
  const Signature& parameters = method.parametersSignature();
  const GenericObject& generic = *object.share();
  const AnyFunction* function = generic.type->method(generic.value, method.uid());
  if (!function || !*function) return readArgumentList(payload, parameters, limits, objects);
  return read(payload, makeTargets(*function), hasTail(parameters), limits, objects);
}

GenericFunctionParameters readArgumentList(std::span<const char> payload,
                                           const Signature& parameters, const wire::Limits& limits,
                                           wire::IncomingObjects& objects) {
  return read(payload, makeTargets(parameters), hasTail(parameters), limits, objects);
}

}  // namespace gv::rpc
