#include "base64.h"

#include <cstdint>
#include <string_view>

namespace JX::detail {
namespace {

constexpr std::string_view alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string base64Encode(const unsigned char* data, std::size_t size) {
  std::string text;
  text.reserve((size + 2) / 3 * 4);
  for (std::size_t i = 0; i < size; i += 3) {
    std::uint32_t group = std::uint32_t{data[i]} << 16;
    if (i + 1 < size) group |= std::uint32_t{data[i + 1]} << 8;
    if (i + 2 < size) group |= data[i + 2];
    text += alphabet[group >> 18];
    text += alphabet[group >> 12 & 63];
    text += i + 1 < size ? alphabet[group >> 6 & 63] : '=';
    text += i + 2 < size ? alphabet[group & 63] : '=';
  }
  return text;
}

std::optional<std::vector<unsigned char>> base64Decode(const std::string& text) {
  std::vector<unsigned char> bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  unsigned count = 0;
  for (const char symbol : text) {
    if (symbol == '=') break;
    const auto digit = alphabet.find(symbol);
    if (digit == std::string_view::npos) return std::nullopt;
    bits = bits << 6 | static_cast<std::uint32_t>(digit);
    count += 6;
    if (count < 8) continue;
    count -= 8;
    bytes.push_back(static_cast<unsigned char>(bits >> count));
  }
  // Padding, stray bits and lengths have one right form each.
  if (base64Encode(bytes.data(), bytes.size()) != text) return std::nullopt;
  return bytes;
}

}  // namespace JX::detail
