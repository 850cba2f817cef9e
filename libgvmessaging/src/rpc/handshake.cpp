#include "src/rpc/handshake.h"

#include <stdexcept>
#include <tuple>

#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"

namespace gv::rpc {
namespace {

using Fields = std::tuple<std::uint32_t, std::map<std::string, AnyValue>, std::string, std::string,
                          std::uint32_t>;
constexpr const char* signature = "(ua{sv}ssu)";

HandshakeFrame makeError(const std::string& text) {
  HandshakeFrame error{wire::FrameType::Error, {}};
  wire::writeValue(error.payload, AnyReference::from(text), "s");
  return error;
}

wire::Limits handshakeLimits(const wire::Limits& limits) {
  wire::Limits small = limits;
  small.decodedBytes = limits.handshakeDecodedBytes;
  return small;
}

std::string readRefusal(const wire::Frame& frame, const wire::Limits& limits) {
  std::string text;
  wire::readValue(frame.bytes(), AnyReference::from(text), handshakeLimits(limits));
  return "the peer refused the handshake: " + text;
}

}  // namespace

std::vector<char> encodeGreeting(const Greeting& greeting) {
  const Fields fields(greeting.version, greeting.capabilities, greeting.sessionId,
                      greeting.machineId, greeting.processId);
  std::vector<char> payload;
  wire::writeValue(payload, AnyReference::from(fields), signature);
  return payload;
}

Greeting decodeGreeting(std::span<const char> payload, const wire::Limits& limits) {
  Fields fields;
  wire::readValue(payload, AnyReference::from(fields), handshakeLimits(limits));
  auto& [version, capabilities, sessionId, machineId, processId] = fields;
  if (version != Greeting::currentVersion)
    throw std::runtime_error("the peer speaks version " + std::to_string(version) +
                             " of the protocol, this side version " +
                             std::to_string(Greeting::currentVersion));
  constexpr std::size_t longestId = 255;
  if (sessionId.empty() || sessionId.size() > longestId || machineId.size() > longestId)
    throw std::runtime_error("the peer's greeting names no session");
  return {version, std::move(capabilities), std::move(sessionId), std::move(machineId), processId};
}

HandshakeStep stepHandshake(Role role, const Greeting& own, const wire::Limits& limits,
                            const wire::Frame& frame) {
  const bool isServer = role == Role::Server;
  const auto expected = isServer ? wire::FrameType::Hello : wire::FrameType::Welcome;
  HandshakeStep step;
  try {
    if (!isServer && frame.header.type == wire::FrameType::Error)
      step.refusal = readRefusal(frame, limits);
    else if (frame.header.type != expected)
      step.refusal = "the peer sent another frame before the handshake";
    else
      step.peer = decodeGreeting(frame.bytes(), limits);
  } catch (const std::exception& error) {
    step.refusal = error.what();
  }
  if (!isServer || frame.header.type != expected) return step;
  step.answer = step.peer ? HandshakeFrame{wire::FrameType::Welcome, encodeGreeting(own)}
                          : makeError(step.refusal);
  return step;
}

}  // namespace gv::rpc
