#include "src/wire/framereader.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "src/wire/threadspare.h"

namespace gv::wire {
namespace {

constexpr std::size_t bufferSize = 64u << 10;

// What is read ahead of a header behind a large payload: the next one is to be received where it
// stays.
constexpr std::size_t readBehindLarge = 8u << 10;

// How far storage for a payload may run ahead of the bytes that arrived.
constexpr std::size_t step = 64u << 10;

// One thread mostly reads connection after connection: it takes the same buffer along.
std::unique_ptr<char[]>* spareBuffer() {
  return threadSpare<std::unique_ptr<char[]>>();
}

}  // namespace

std::span<char> FrameReader::space() {
  if (isDirect()) {
    if (arrived_ == payload_.size())
      // Twice what has arrived, so that growing stays linear where it copies.
      payload_.resize(std::min<std::size_t>(header_.payloadSize, 2 * arrived_ + step));
    return {payload_.data() + arrived_, payload_.size() - arrived_};
  }
  if (!buffer_) {
    if (const auto spare = spareBuffer()) buffer_ = std::move(*spare);
    if (!buffer_) buffer_ = std::make_unique_for_overwrite<char[]>(bufferSize);
  }
  if (begin_ > 0) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, buffered());
    end_ = buffered();
    begin_ = 0;
  }
  return {buffer_.get() + end_, roomInBuffer()};
}

std::size_t FrameReader::roomInBuffer() const {
  const bool isShort = wasLarge_ && !hasHeader_ && end_ < frameHeaderSize;
  return (isShort ? readBehindLarge : bufferSize) - end_;
}

void FrameReader::fill(std::size_t count) {
  (isDirect() ? arrived_ : end_) += count;
  giveBackIfEmpty();
}

bool FrameReader::next(Frame& frame) {
  if (error_.empty() && !hasHeader_) takeHeader();
  const bool isComplete = error_.empty() && hasHeader_ && takePayload(frame.payload);
  if (isComplete) {
    frame.header = header_;
    wasLarge_ = isDirect();
    hasHeader_ = false;
  }
  giveBackIfEmpty();
  return isComplete;
}

void FrameReader::stop(const std::string& reason) {
  if (!error_.empty()) return;
  error_ = reason.empty() ? "stopped" : reason;
  payload_ = {};
  arrived_ = begin_ = end_ = 0;
  hasHeader_ = false;
}

void FrameReader::takeHeader() {
  const std::span<const char> bytes(buffer_.get() + begin_, buffered());
  if (bytes.size() < frameHeaderSize) {
    // A peer that speaks something else is refused at its first wrong byte: it may wait for an
    // answer before it sends as much as a header.
    if (auto error = refuseStart(bytes)) stop(*error);
    return;
  }
  if (auto error = decodeHeader(bytes.first<frameHeaderSize>(), header_)) return stop(*error);
  if (header_.payloadSize > limit_)
    return stop("frame payload of " + std::to_string(header_.payloadSize) +
                " bytes is over the limit of " + std::to_string(limit_));
  begin_ += frameHeaderSize;
  hasHeader_ = true;
}

/// True when all of it is there.
bool FrameReader::takePayload(Payload& payload) {
  const std::size_t size = header_.payloadSize;
  if (!isDirect()) {
    if (buffered() < size) return false;
    payload.assign(takeBuffered(size));
    return true;
  }
  while (buffered() > 0 && arrived_ < size) {
    const std::span<char> room = space();
    const auto bytes = takeBuffered(room.size());
    std::copy(bytes.begin(), bytes.end(), room.begin());
    arrived_ += bytes.size();
  }
  if (arrived_ < size) return false;
  payload = std::move(payload_);
  arrived_ = 0;
  return true;
}

std::span<const char> FrameReader::takeBuffered(std::size_t most) {
  const std::size_t count = std::min(most, buffered());
  const std::span<const char> bytes(buffer_.get() + begin_, count);
  begin_ += count;
  return bytes;
}

void FrameReader::giveBackIfEmpty() {
  if (buffered() > 0) return;
  begin_ = end_ = 0;
  if (const auto spare = spareBuffer(); spare && buffer_ && !*spare) *spare = std::move(buffer_);
  buffer_.reset();
}

}  // namespace gv::wire
