#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include <gvmessaging/api.h>

#include "src/wire/frame.h"
#include "src/wire/payload.h"

namespace gv::wire {

struct Frame {
  FrameHeader header;
  Payload payload;

  std::span<const char> bytes() const { return {payload.data(), payload.size()}; }
};

/// Cuts the bytes of one connection into frames, however they arrive:
///
///     reader.fill(receive(reader.space()));
///     while (reader.next(frame)) handle(frame);
///     if (!reader.error().empty()) close(reader.error());
///
/// Small frames come out of a buffer that is held only while bytes are in it; a large payload is
/// received into its final place, but for what comes with its header: little, where the one before
/// was large, too. What is held never exceeds twice the bytes that arrived of the
/// current frame, plus 128 KiB: announcing a size costs a peer as much as sending it. After the
/// first error nothing more is accepted. Belongs to one thread at a time.
class GVMESSAGING_API FrameReader {
 public:
  /// Refuses payloads of more than @p payloadLimit bytes.
  explicit FrameReader(std::uint32_t payloadLimit) : limit_(payloadLimit) {}

  /// Holds from the next header on, also those that have arrived already.
  void setLimit(std::uint32_t payloadLimit) { limit_ = payloadLimit; }

  /// Where the next bytes are to be put: room for one at least, once next() has taken all frames.
  /// To be followed by fill().
  std::span<char> space();
  /// The first @p count bytes of space() have arrived; with 0 the space is given back.
  void fill(std::size_t count);
  /// Takes the next complete frame; one that is used again brings its memory along. False when
  /// there is none yet, or never again: see error().
  [[nodiscard]] bool next(Frame& frame);

  /// False where next() certainly has no frame.
  bool mayHaveNext() const {
    if (!hasHeader_) return buffered() >= frameHeaderSize;
    return buffered() + (isDirect() ? arrived_ : 0) >= header_.payloadSize;
  }

  /// Accepts nothing more, with @p reason as the error, as after a bad frame. The first one stays.
  void stop(const std::string& reason);

  /// Why bytes were refused; empty as long as all is well.
  const std::string& error() const { return error_; }

  /// Bytes reserved for a large payload under way.
  std::size_t storage() const { return isDirect() ? payload_.capacity() : 0; }

 private:
  bool isDirect() const { return hasHeader_ && header_.payloadSize > largestBuffered; }
  std::size_t roomInBuffer() const;
  std::size_t buffered() const { return end_ - begin_; }
  std::span<const char> takeBuffered(std::size_t most);
  void takeHeader();
  bool takePayload(Payload& payload);
  void giveBackIfEmpty();

  /// Payloads up to this size wait in the buffer until they are complete.
  static constexpr std::size_t largestBuffered = 32u << 10;

  std::uint32_t limit_;
  std::string error_;
  std::unique_ptr<char[]> buffer_;  // none while nothing is in it
  std::size_t begin_ = 0;           // the bytes in it that were not taken yet
  std::size_t end_ = 0;
  FrameHeader header_;
  bool hasHeader_ = false;   // the payload of header_ is under way
  Payload payload_;          // it, where it is large
  std::size_t arrived_ = 0;  // of payload_
  bool wasLarge_ = false;    // the last payload
};

}  // namespace gv::wire
