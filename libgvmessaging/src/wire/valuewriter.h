#pragma once

#include <span>
#include <string_view>
#include <vector>

#include <gvmessaging/api.h>
#include <gvtype/conversion.h>

#include "src/wire/output.h"

namespace gv::wire {

/// Appends `value` to `out`, which may then refer to parts of it, as a value of the well-formed
/// type `signature`, converted on the way where its own type is another. Throws ConversionError for
/// what does not convert, cannot be sent or nests too deeply; `out` then holds a useless rest.
GVMESSAGING_API void writeValue(Output& out, const AnyReference& value, std::string_view signature,
                                const ConversionPlace& place = {});

/// Appends the arguments of a call as the tuple `signature`; those that meet its `*` are written as
/// dynamic values. Throws also where their number does not fit.
GVMESSAGING_API void writeArguments(Output& out, std::span<const AnyReference> arguments,
                                    std::string_view signature);

/// Both for whom a copy of everything is good enough, and no object is sent.
GVMESSAGING_API void writeValue(std::vector<char>& out, const AnyReference& value,
                                std::string_view signature);
GVMESSAGING_API void writeArguments(std::vector<char>& out,
                                    const GenericFunctionParameters& arguments,
                                    std::string_view signature);

}  // namespace gv::wire
