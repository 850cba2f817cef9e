#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <gvmessaging/api.h>
#include <gvtype/anyvalue.h>

#include "src/wire/framereader.h"
#include "src/wire/limits.h"

namespace gv::rpc {

/// Who reached whom: the client speaks first.
enum class Role { Client, Server };

/// What each side says of itself in the handshake. A value.
struct Greeting {
  static constexpr std::uint32_t currentVersion = 1;

  std::uint32_t version = currentVersion;
  std::map<std::string, AnyValue> capabilities;
  std::string sessionId;
  std::string machineId;
  std::uint32_t processId = 0;
};

/// The greeting as the payload of a Hello or Welcome frame.
GVMESSAGING_API std::vector<char> encodeGreeting(const Greeting& greeting);
/// Throws std::runtime_error for a payload that is no greeting, or of a version not spoken here.
GVMESSAGING_API Greeting decodeGreeting(std::span<const char> payload, const wire::Limits& limits);

/// A frame of the handshake that is to be sent; all else in its header is 0.
struct HandshakeFrame {
  wire::FrameType type;
  std::vector<char> payload;
};

/// What one side does next in the handshake: first it sends `answer`, if any; then the connection
/// is open with `peer`, or ends with `refusal` as its cause. A value.
struct HandshakeStep {
  std::optional<HandshakeFrame> answer;
  std::optional<Greeting> peer;
  std::string refusal;  ///< Empty if and only if there is a peer.
};

/// What a side makes of the first frame that it gets. A stranger is told why its greeting is
/// refused, and nothing else. Decides only: no sockets, threads or locks.
GVMESSAGING_API HandshakeStep stepHandshake(Role role, const Greeting& own,
                                            const wire::Limits& limits, const wire::Frame& frame);

}  // namespace gv::rpc
