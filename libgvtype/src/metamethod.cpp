#include <gvtype/metamethod.h>

namespace gv {

MetaMethodBuilder::MetaMethodBuilder() {
  setReturnSignature("V");
  setParametersSignature("()");
}

void MetaMethodBuilder::appendParameter(std::string name, std::string description) {
  method_.parameters_.emplace_back(std::move(name), std::move(description));
}

bool isValidName(const std::string& name) {
  constexpr std::size_t longest = 255;
  if (name.empty() || name.size() > longest || name[0] == ' ') return false;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f || c == '/' || c == '(') return false;
  }
  return true;
}

}  // namespace gv
