#pragma once

#include <span>

#include <gvtype/object.h>

#include "src/wire/limits.h"
#include "src/wire/objectpassage.h"

namespace gv::rpc {

/// Decodes the arguments of a call of `method`, straight into the parameter types of its function
/// where the object has one here. The references share ownership of the values. Throws
/// wire::PayloadError.
GenericFunctionParameters readArgumentList(std::span<const char> payload,
                                           const Object<Empty>& object, const MetaMethod& method,
                                           const wire::Limits& limits,
                                           wire::IncomingObjects& objects);

/// Decodes arguments, or the values of a signal, that are known by their signature, a tuple, only.
GenericFunctionParameters readArgumentList(std::span<const char> payload,
                                           const Signature& parameters, const wire::Limits& limits,
                                           wire::IncomingObjects& objects);

}  // namespace gv::rpc
