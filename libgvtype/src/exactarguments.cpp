#include "exactarguments.h"

#include <stdexcept>

#include <gvtype/conversion.h>

namespace gv {

void checkArgumentCount(std::size_t given, std::size_t wanted, bool hasTail) {
  if (given == wanted || (hasTail && given > wanted)) return;
  throw std::runtime_error("expected " + std::string(hasTail ? "at least " : "") +
                           std::to_string(wanted) + (wanted == 1 ? " argument" : " arguments") +
                           ", got " + std::to_string(given));
}

namespace {

/// Of a dynamic argument the content where that is what is wanted, so that nothing is converted.
AnyReference contentFor(const AnyReference& argument, const TypeInterface* wanted) {
  if (!argument.isValid() || argument.type()->kind != TypeKind::Dynamic) return argument;
  const AnyReference content = argument.type()->dynamic->content(argument.pointer());
  return sameType(content.type(), wanted) ? content : argument;
}

}  // namespace

ExactArguments::ExactArguments(std::span<const AnyReference> arguments,
                               std::span<const TypeInterface* const> types, bool hasTail) {
  checkArgumentCount(arguments.size(), types.size(), hasTail);
  references_.reserve(types.size());
  converted_.reserve(types.size());  // references point into it
  for (std::size_t i = 0; i < types.size(); ++i) {
    const AnyReference argument = contentFor(arguments[i], types[i]);
    const TypeInterface* type = types[i];
    if (sameType(argument.type(), type)) {
      references_.push_back(argument);
      continue;
    }
    if (!type->construct)
      throw ConversionError(ConversionError::Reason::Kind,
                            "cannot convert " + typeName(argument.type()) + " to " +
                                typeName(type) + " (argument " + std::to_string(i + 1) + ")");
    const AnyReference value = converted_.emplace_back(AnyValue::make(type)).asReference();
    convertInto(argument, type, value.pointer(), {nullptr, "argument", i + 1});
    references_.push_back(value);
  }
}

}  // namespace gv
