// Any text is refused, or is one complete type that stays what it is and can be made a value of.

#include <cstdint>
#include <stdexcept>
#include <string>

#include <gvtype/anyvalue.h>
#include <gvtype/signature.h>

#include "law.h"

namespace {

void requireParts(const std::string& text) {
  std::size_t length = 2;  // the two brackets
  for (const std::string_view member : gv::signatureMembers(text)) {
    length += member.size();
    if (member == "*" && length == text.size()) continue;  // the rest of the parameters
    fuzz::require(gv::Signature(std::string(member)).toString() == member,
                  "a member of a tuple is a type");
  }
  if (text.starts_with('(') && !text.ends_with('>'))
    fuzz::require(length == text.size(), "the members of a tuple are all of it");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto [name, parameters] = gv::signatureSplit(text);
  fuzz::require(name.size() + parameters.size() <= text.size(), "a split adds nothing");
  gv::Signature signature;
  try {
    signature = gv::Signature(text);
  } catch (const std::runtime_error&) {
    return 0;
  }
  fuzz::require(signature.toString() == text, "an accepted signature is its text");
  if (text.empty()) return 0;
  fuzz::require(gv::signatureLength(text) == text.size(), "an accepted signature is one type");
  requireParts(text);
  try {
    const gv::AnyValue value = gv::AnyValue::makeDefault(text);
    fuzz::require(gv::AnyValue(value) == value, "a default value equals its copy");
  } catch (const std::runtime_error&) {
    // Types of which there is no value: parameters, objects, unknown ones.
  }
  return 0;
}
