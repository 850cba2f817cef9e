#include "src/rpc/greeting.h"

#include <stdexcept>
#include <tuple>

#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"

namespace gv::rpc {
namespace {

using Fields = std::tuple<std::uint32_t, std::map<std::string, AnyValue>, std::string, std::string,
                          std::uint32_t>;
constexpr const char* signature = "(ua{sv}ssu)";

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
  wire::Limits small = limits;
  small.decodedBytes = limits.handshakeDecodedBytes;
  wire::readValue(payload, AnyReference::from(fields), small);
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

}  // namespace gv::rpc
