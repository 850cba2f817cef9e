#pragma once

#include <string>

namespace gv {

/// What members may look like, whether advertised here or described by a peer. All throw
/// std::runtime_error.
void checkMemberName(const char* kind, const std::string& name);
/// The signature of a method's or signal's parameters: a tuple.
void checkParameters(const std::string& name, const std::string& signature);
/// The signature of a method's result or a property's value: a type, and no list of parameters.
void checkType(const std::string& name, const std::string& signature);

}  // namespace gv
