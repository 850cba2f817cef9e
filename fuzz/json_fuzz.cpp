// Any text is refused, or is a value whose own text is a fixed point.

#include <cstdint>
#include <string>

#include <jxerror/jxerror.h>
#include <jxvalue/jxvalue.h>

#include "law.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  JX::JXValue value;
  try {
    value = JX::JXValue::fromJson(std::string(reinterpret_cast<const char*>(data), size));
  } catch (const JX::JXError&) {
    return 0;
  }
  const std::string text = value.toJson();
  const JX::JXValue back = JX::JXValue::fromJson(text);
  fuzz::require(back == value, "a value comes back from its own text");
  fuzz::require(back.toJson() == text, "toJson(fromJson(text)) is a fixed point");
  return 0;
}
