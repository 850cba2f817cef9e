#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace processes {

// Frames as docs/protocol.md lays them out, read and forged without the library's own code.

enum FrameType : unsigned char { Hello = 1, Welcome, Call, Post, Reply, Error };

/// Where a header's fields begin.
enum FrameOffset : std::size_t {
  TypeAt = 4,
  PayloadSizeAt = 8,
  ServiceAt = 12,
  MemberAt = 20,
  MessageIdAt = 24,
  HeaderSize = 64
};

/// The bytes of one frame. A value.
class FrameBytes {
 public:
  explicit FrameBytes(std::string bytes) : bytes_(std::move(bytes)) {}

  const std::string& bytes() const { return bytes_; }
  FrameType type() const { return static_cast<FrameType>(bytes_.at(TypeAt)); }
  /// The low half of it; the tests' ids never exceed that.
  std::uint32_t messageId() const;
  std::string_view payload() const { return std::string_view(bytes_).substr(HeaderSize); }

  /// Copies that differ in a byte or a number of the header, or in the payload and its size.
  FrameBytes withByte(std::size_t at, unsigned char value) const;
  FrameBytes withNumber(std::size_t at, std::uint32_t value) const;
  FrameBytes withPayload(const std::string& payload) const;

 private:
  std::string bytes_;
};

/// The size of the payload that a header announces.
std::uint32_t payloadSizeOf(std::string_view header);

/// Cuts one direction of a conversation into its frames. Throws std::runtime_error where the bytes
/// are not whole frames.
std::vector<FrameBytes> framesOf(std::string_view bytes);

}  // namespace processes
