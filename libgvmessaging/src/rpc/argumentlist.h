#pragma once

#include <gvtype/object.h>

#include "src/wire/objectpassage.h"
#include "src/wire/valuereader.h"

namespace gv::rpc {

/// Decodes the arguments of a call, or the values of a signal: straight into the parameter types of
/// `function` where it is given, else as their signature, a tuple, has them. The references share
/// ownership of the values. Throws wire::PayloadError.
GenericFunctionParameters readArgumentList(const wire::Encoded& payload,
                                           const AnyFunction* function, const Signature& parameters,
                                           const wire::Limits& limits,
                                           wire::IncomingObjects& objects);

}  // namespace gv::rpc
