#include "membercheck.h"

#include <stdexcept>

#include <gvtype/metamethod.h>
#include <gvtype/signature.h>

namespace gv {

void checkMemberName(const char* kind, const std::string& name) {
  if (!isValidName(name))
    throw std::runtime_error("a " + std::string(kind) + " cannot have the name '" + name +
                             "': names have 1 to 255 bytes, no control characters, no '/', no '(' "
                             "and do not start with a blank");
}

void checkParameters(const std::string& name, const std::string& signature) {
  if (!signature.starts_with('('))
    throw std::runtime_error("the parameters of '" + name + "' are no tuple");
}

void checkType(const std::string& name, const std::string& signature) {
  if (signature.empty() || signatureHasCode(signature, '*'))
    throw std::runtime_error("'" + name + "' has no type");
}

}  // namespace gv
