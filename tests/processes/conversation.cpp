#include "conversation.h"

#include <stdexcept>

namespace processes {
namespace {

std::uint32_t numberAt(std::string_view bytes, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i)
    value |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes.at(at + i))) << (8 * i);
  return value;
}

}  // namespace

std::uint32_t payloadSizeOf(std::string_view header) {
  return numberAt(header, PayloadSizeAt);
}

std::uint32_t FrameBytes::messageId() const {
  return numberAt(bytes_, MessageIdAt);
}

FrameBytes FrameBytes::withByte(std::size_t at, unsigned char value) const {
  FrameBytes copy = *this;
  copy.bytes_.at(at) = static_cast<char>(value);
  return copy;
}

FrameBytes FrameBytes::withNumber(std::size_t at, std::uint32_t value) const {
  FrameBytes copy = *this;
  for (std::size_t i = 0; i < 4; ++i)
    copy.bytes_.at(at + i) = static_cast<char>(static_cast<unsigned char>(value >> (8 * i)));
  return copy;
}

FrameBytes FrameBytes::withPayload(const std::string& payload) const {
  return FrameBytes(bytes_.substr(0, HeaderSize) + payload)
      .withNumber(PayloadSizeAt, static_cast<std::uint32_t>(payload.size()));
}

std::vector<FrameBytes> framesOf(std::string_view bytes) {
  std::vector<FrameBytes> frames;
  while (!bytes.empty()) {
    if (bytes.size() < HeaderSize || bytes.size() - HeaderSize < payloadSizeOf(bytes))
      throw std::runtime_error("a recording that ends within a frame");
    const std::size_t size = HeaderSize + payloadSizeOf(bytes);
    frames.emplace_back(std::string(bytes.substr(0, size)));
    bytes.remove_prefix(size);
  }
  return frames;
}

}  // namespace processes
