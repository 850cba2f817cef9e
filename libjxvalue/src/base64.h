#pragma once

#include <optional>
#include <string>
#include <vector>

namespace JX::detail {

/// Base64 with padding, standard alphabet, no line breaks.
std::string base64Encode(const unsigned char* data, std::size_t size);

/// The bytes of such a text; nothing when it is not exactly what base64Encode writes.
std::optional<std::vector<unsigned char>> base64Decode(const std::string& text);

}  // namespace JX::detail
