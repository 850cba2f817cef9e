#include "src/wire/framereader.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace gv::wire {
namespace {

// How far storage may run ahead of the bytes that arrived.
constexpr std::size_t step = 64u << 10;

}  // namespace

bool FrameReader::feed(std::span<const char> bytes, const FrameHandler& onFrame) {
  while (error_.empty() && !bytes.empty()) {
    bytes = headerSize_ < frameHeaderSize ? takeHeader(bytes) : takePayload(bytes);
    const bool complete =
        headerSize_ == frameHeaderSize && frame_.payload.size() == frame_.header.payloadSize;
    if (error_.empty() && complete) deliver(onFrame);
  }
  return error_.empty();
}

void FrameReader::stop(const std::string& reason) {
  if (!error_.empty()) return;
  error_ = reason.empty() ? "stopped" : reason;
  frame_ = {};
}

// Returns what is left of `bytes`.
std::span<const char> FrameReader::takeHeader(std::span<const char> bytes) {
  const std::size_t before = headerSize_;
  const std::size_t count = std::min(bytes.size(), frameHeaderSize - before);
  std::copy_n(bytes.begin(), count, headerBytes_.begin() + before);
  headerSize_ += count;
  if (headerSize_ < frameHeaderSize) {
    // A peer that speaks something else is refused at its first wrong byte: it may wait for an
    // answer before it sends as much as a header.
    if (auto error = refuseStart(std::span(headerBytes_).first(headerSize_))) stop(*error);
  } else if (auto error = decodeHeader(headerBytes_, frame_.header)) {
    stop(*error);
  } else if (frame_.header.payloadSize > limit_) {
    stop("frame payload of " + std::to_string(frame_.header.payloadSize) +
         " bytes is over the limit of " + std::to_string(limit_));
  }
  return bytes.subspan(count);
}

std::span<const char> FrameReader::takePayload(std::span<const char> bytes) {
  std::vector<char>& payload = frame_.payload;
  const std::size_t count = std::min(bytes.size(), frame_.header.payloadSize - payload.size());
  const std::size_t arrived = payload.size() + count;
  // Twice what has arrived, so that the copies of growing stay linear.
  if (arrived > payload.capacity())
    payload.reserve(
        std::min<std::size_t>(frame_.header.payloadSize, std::max(arrived + step, 2 * arrived)));
  payload.insert(payload.end(), bytes.begin(), bytes.begin() + count);
  return bytes.subspan(count);
}

// The reader is ready for the next header before the handler runs, and stopped when it throws: the
// bytes after this frame are lost then.
void FrameReader::deliver(const FrameHandler& onFrame) {
  headerSize_ = 0;
  Frame frame = std::exchange(frame_, {});
  try {
    onFrame(std::move(frame));
  } catch (...) {
    stop("a frame's handler failed");
    throw;
  }
}

}  // namespace gv::wire
