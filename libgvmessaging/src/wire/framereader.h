#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include <gvmessaging/api.h>

#include "src/wire/frame.h"

namespace gv::wire {

struct Frame {
  FrameHeader header;
  std::vector<char> payload;
};

/// Cuts the bytes of one connection into frames, however they arrive.
///
/// What it holds never exceeds twice the bytes that arrived of the current frame, plus 64 KiB:
/// announcing a size costs a peer as much as sending it. After the first error nothing more is
/// accepted. Belongs to one thread at a time.
class GVMESSAGING_API FrameReader {
 public:
  /// Gets each complete frame, from within feed(). May call setLimit() and stop().
  using FrameHandler = std::function<void(Frame&&)>;

  /// Refuses payloads of more than @p payloadLimit bytes.
  explicit FrameReader(std::uint32_t payloadLimit) : limit_(payloadLimit) {}

  /// Holds from the next header on, also those that were fed already but not yet decoded.
  void setLimit(std::uint32_t payloadLimit) { limit_ = payloadLimit; }

  /// Takes the next @p bytes. False when they, or any before, are refused: error() says why and the
  /// connection must be closed. An exception of @p onFrame passes through and stops the reader.
  [[nodiscard]] bool feed(std::span<const char> bytes, const FrameHandler& onFrame);

  /// Accepts nothing more, with @p reason as the error, as after a bad frame. The first one stays.
  void stop(const std::string& reason);

  /// Why bytes were refused; empty as long as all is well.
  const std::string& error() const { return error_; }

  /// Bytes held for the frame under way.
  std::size_t storage() const { return frame_.payload.capacity(); }

 private:
  std::span<const char> takeHeader(std::span<const char> bytes);
  std::span<const char> takePayload(std::span<const char> bytes);
  void deliver(const FrameHandler& onFrame);

  std::uint32_t limit_;
  std::string error_;
  std::array<char, frameHeaderSize> headerBytes_{};
  std::size_t headerSize_ = 0;  // how much of headerBytes_ has arrived
  Frame frame_;                 // its header is valid once headerSize_ is whole
};

}  // namespace gv::wire
