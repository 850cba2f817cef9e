#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include <gvmessaging/api.h>

namespace gv::wire {

enum class FrameType : std::uint8_t {
  Hello = 1,      ///< Opens the handshake.
  Welcome = 2,    ///< Answers it.
  Call = 3,       ///< Asks for a reply.
  Post = 4,       ///< Asks for none.
  Reply = 5,      ///< The value of the call of the same message id.
  Error = 6,      ///< Its error text.
  Event = 7,      ///< An emission, for the subscription that the message id numbers.
  Challenge = 8,  ///< In the handshake: asks for proof of a key.
  Proof = 9,      ///< In the handshake: gives it.
};

/// Where the called side runs a method. The numbers are those of gv::MetaCallType.
enum class CallType : std::uint8_t { Auto = 0, Direct = 1, Queued = 2 };

inline constexpr std::size_t frameHeaderSize = 64;

/// The first bytes of every frame: 'G', 'V', 'M' and the version of the framing.
inline constexpr std::array<char, 4> frameMagic = {'G', 'V', 'M', 1};

/// The fixed part of a frame, as docs/protocol.md lays it out.
struct FrameHeader {
  FrameType type = FrameType::Hello;
  CallType callType = CallType::Auto;  ///< Of Call and Post; Auto in others.
  std::uint32_t payloadSize = 0;       ///< Bytes that follow the header.
  std::uint32_t service = 0;
  std::uint32_t object = 0;  ///< Within the service; 0: the service's main object.
  std::uint32_t member = 0;
  std::uint64_t messageId = 0;
  std::uint64_t parentCall = 0;  ///< The call that the sender was serving; 0: none.
  std::uint32_t deadlineMs = 0;  ///< Time left for the call; 0: no deadline.
  std::array<std::uint8_t, 16> traceId{};

  friend bool operator==(const FrameHeader& a, const FrameHeader& b) = default;
};

/// Writes the 64 bytes of @p header.
GVMESSAGING_API void encodeHeader(const FrameHeader& header, std::span<char, frameHeaderSize> out);

/// Why @p start, the first bytes of a connection or frame, can begin no frame; nothing as long as
/// they can. Looks at the magic and version only, as far as they are there.
[[nodiscard]] GVMESSAGING_API std::optional<std::string> refuseStart(std::span<const char> start);

/// Reads @p in into @p header. Returns why the bytes are no frame header, nothing when they are;
/// @p header is untouched then. Knows no limit of size: see FrameReader.
[[nodiscard]] GVMESSAGING_API std::optional<std::string> decodeHeader(
    std::span<const char, frameHeaderSize> in, FrameHeader& header);

}  // namespace gv::wire
