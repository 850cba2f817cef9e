#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/rawpeer.h"

namespace processes {

// Frames as docs/protocol.md lays them out, read without the library's own code.

enum FrameType : unsigned char { Hello = 1, Welcome, Call, Post, Reply, Error };

/// The bytes of one frame. A value.
class FrameBytes {
 public:
  explicit FrameBytes(std::string bytes) : bytes_(std::move(bytes)) {}

  const std::string& bytes() const { return bytes_; }
  FrameType type() const { return static_cast<FrameType>(bytes_.at(4)); }
  /// The low half of it; the tests' ids never exceed that.
  std::uint32_t messageId() const;
  /// The header alone, with another size of the payload.
  std::string announcing(std::uint32_t payloadSize) const;

 private:
  std::string bytes_;
};

/// Cuts one direction of a conversation into its frames. Throws std::runtime_error where the bytes
/// are not whole frames.
std::vector<FrameBytes> framesOf(std::string_view bytes);

/// The next frame; none at the end of the connection.
std::optional<FrameBytes> receiveFrame(house::RawPeer& peer);

}  // namespace processes
