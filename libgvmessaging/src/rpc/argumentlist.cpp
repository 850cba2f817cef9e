#include "src/rpc/argumentlist.h"

#include <memory>

#include "src/wire/valuereader.h"

namespace gv::rpc {
namespace {

std::vector<AnyValue> makeTargets(const AnyFunction* function, const MetaMethod& method) {
  std::vector<AnyValue> targets;
  if (function && *function) {
    for (const TypeInterface* type : function->parameterTypes())
      if (type) targets.push_back(AnyValue::make(type));
  } else {
    for (const std::string_view type : signatureMembers(method.parametersSignature().toString()))
      if (type != "*") targets.push_back(AnyValue::makeDefault(type));
  }
  return targets;
}

}  // namespace

GenericFunctionParameters readArgumentList(std::span<const char> payload,
                                           const Object<Empty>& object, const MetaMethod& method,
                                           const wire::Limits& limits) {
  struct Values {
    std::vector<AnyValue> targets;
    std::vector<AnyValue> tail;
  };
  const GenericObject& generic = *object.share();
  auto values = std::make_shared<Values>();
  values->targets = makeTargets(generic.type->method(generic.value, method.uid()), method);
  std::vector<AnyReference> references;
  for (const AnyValue& target : values->targets) references.push_back(target.asReference());
  const bool hasTail = method.parametersSignature().toString().ends_with("*)");
  wire::readArguments(payload, references, hasTail ? &values->tail : nullptr, limits);

  GenericFunctionParameters arguments;
  for (const auto* group : {&values->targets, &values->tail})
    for (const AnyValue& value : *group) {
      const AnyReference reference = value.asReference();
      arguments.emplace_back(reference.type(), reference.pointer(), values);
    }
  return arguments;
}

}  // namespace gv::rpc
