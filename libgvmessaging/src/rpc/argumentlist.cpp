#include "src/rpc/argumentlist.h"

#include <boost/container/small_vector.hpp>
#include <memory>

#include "src/rpc/releasedelsewhere.h"

namespace gv::rpc {
namespace {

/// May hold objects of users.
struct Values {
  boost::container::small_vector<AnyValue, 4> targets;
  std::vector<AnyValue> tail;
};

}  // namespace

GenericFunctionParameters readArgumentList(const wire::Encoded& payload,
                                           const AnyFunction* function, const Signature& parameters,
                                           const wire::Limits& limits,
                                           wire::IncomingObjects& objects) {
  const auto values = releasedElsewhere(Values());
  if (function && *function) {
    for (const TypeInterface* type : function->argumentTypes())
      values->targets.push_back(AnyValue::make(type));
  } else {
    for (const std::string_view type : signatureMembers(parameters.toString()))
      if (type != "*") values->targets.push_back(AnyValue::makeDefault(type));
  }
  GenericFunctionParameters arguments;
  arguments.reserve(values->targets.size());
  const auto add = [&](const AnyValue& value) {
    const AnyReference reference = value.asReference();
    arguments.emplace_back(reference.type(), reference.pointer(), values);
  };
  for (const AnyValue& value : values->targets) add(value);
  const bool hasTail = parameters.toString().ends_with("*)");
  wire::readArguments(payload, arguments, hasTail ? &values->tail : nullptr, limits, &objects);
  for (const AnyValue& value : values->tail) add(value);
  return arguments;
}

}  // namespace gv::rpc
