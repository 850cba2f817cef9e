#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

#include "src/wire/frame.h"
#include "src/wire/output.h"
#include "src/wire/threadspare.h"

namespace gv::wire {

/// A frame in the making: room for the header, and behind it the payload. Its memory comes from the
/// thread that makes it and goes back there.
class Message : public Output {
 public:
  explicit Message(OutgoingObjects* objects = nullptr) : Output(objects) {
    if (Bytes* spare = threadSpare<Bytes>()) own_ = std::move(*spare);
    own_.resize(frameHeaderSize);
  }
  ~Message() {
    constexpr std::size_t mostKept = 64u << 10;
    if (own_.capacity() > mostKept) return;
    if (Bytes* spare = threadSpare<Bytes>()) *spare = std::move(own_);
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  std::size_t payloadSize() const { return size() - frameHeaderSize; }
  /// The error of a payload that is over `limit`; `what` ends with a verb.
  std::runtime_error tooLarge(const std::string& what, std::size_t limit) const {
    return std::runtime_error(what + " " + std::to_string(payloadSize()) +
                              " bytes, more than the limit of " + std::to_string(limit));
  }

  /// Writes the header in front. Returns the whole frame, good while this lives.
  std::span<const std::span<const char>> finish(FrameHeader header) {
    header.payloadSize = static_cast<std::uint32_t>(payloadSize());
    encodeHeader(header, std::span<char, frameHeaderSize>(own_.data(), frameHeaderSize));
    pieces_ = pieces();
    return {pieces_.data(), pieces_.size()};
  }

 private:
  Pieces pieces_;
};

}  // namespace gv::wire
