#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "src/wire/frame.h"

namespace gv::wire {

/// A frame in the making: room for the header, and behind it the payload. Its memory comes from the
/// thread that makes it and goes back there.
class Message {
 public:
  Message() : bytes_(std::move(spare())) { bytes_.resize(frameHeaderSize); }
  ~Message() {
    constexpr std::size_t mostKept = 64u << 10;
    if (bytes_.capacity() <= mostKept) spare() = std::move(bytes_);
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  /// The header's place and the payload so far: append to it.
  std::vector<char>& bytes() { return bytes_; }
  std::size_t payloadSize() const { return bytes_.size() - frameHeaderSize; }

  /// Writes the header in front. Returns the whole frame, good while this lives.
  std::span<const char> finish(FrameHeader header) {
    header.payloadSize = static_cast<std::uint32_t>(payloadSize());
    encodeHeader(header, std::span<char, frameHeaderSize>(bytes_.data(), frameHeaderSize));
    return bytes_;
  }

 private:
  static std::vector<char>& spare() {
    thread_local std::vector<char> bytes;
    return bytes;
  }

  std::vector<char> bytes_;
};

}  // namespace gv::wire
