#include "conversation.h"

#include <stdexcept>

namespace processes {
namespace {

constexpr std::size_t headerSize = 64;
constexpr std::size_t payloadSizeAt = 8;
constexpr std::size_t messageIdAt = 24;

std::uint32_t numberAt(std::string_view bytes, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;)
    value = value << 8 | static_cast<unsigned char>(bytes.at(at + i));
  return value;
}

}  // namespace

std::uint32_t FrameBytes::messageId() const {
  return numberAt(bytes_, messageIdAt);
}

std::string FrameBytes::announcing(std::uint32_t payloadSize) const {
  std::string header = bytes_.substr(0, headerSize);
  for (std::size_t i = 0; i < 4; ++i)
    header[payloadSizeAt + i] = static_cast<char>(payloadSize >> (8 * i) & 0xff);
  return header;
}

std::vector<FrameBytes> framesOf(std::string_view bytes) {
  std::vector<FrameBytes> frames;
  while (!bytes.empty()) {
    if (bytes.size() < headerSize || bytes.size() - headerSize < numberAt(bytes, payloadSizeAt))
      throw std::runtime_error("a recording that ends within a frame");
    const std::size_t size = headerSize + numberAt(bytes, payloadSizeAt);
    frames.emplace_back(std::string(bytes.substr(0, size)));
    bytes.remove_prefix(size);
  }
  return frames;
}

std::optional<FrameBytes> receiveFrame(house::RawPeer& peer) {
  const std::string header = peer.receiveAll(headerSize);
  if (header.size() < headerSize) return {};
  return FrameBytes(header + peer.receiveAll(numberAt(header, payloadSizeAt)));
}

}  // namespace processes
