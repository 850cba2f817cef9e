#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include <gvmessaging/api.h>
#include <gvtype/anyvalue.h>

#include "src/wire/limits.h"

namespace gv::rpc {

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

}  // namespace gv::rpc
