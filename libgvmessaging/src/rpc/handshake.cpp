#include "src/rpc/handshake.h"

#include <algorithm>
#include <stdexcept>
#include <tuple>

#include <gvtype/buffer.h>

#include "src/wire/valuereader.h"
#include "src/wire/valuewriter.h"

namespace gv::rpc {
namespace {

using wire::FrameType;

using Fields = std::tuple<std::uint32_t, std::map<std::string, AnyValue>, std::string, std::string,
                          std::uint32_t>;
constexpr const char* signature = "(ua{sv}ssu)";

constexpr const char* nonceName = "nonce";
constexpr std::size_t nonceSize = 32;

template <class T>
HandshakeFrame makeFrame(FrameType type, const T& value, const char* valueSignature) {
  HandshakeFrame frame{type, {}};
  wire::writeValue(frame.payload, AnyReference::from(value), valueSignature);
  return frame;
}

HandshakeFrame makeBytesFrame(FrameType type, std::span<const char> bytes) {
  return makeFrame(type, Buffer(bytes.data(), bytes.size()), "r");
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

bool hasNonce(const Greeting& greeting) {
  const auto found = greeting.capabilities.find(nonceName);
  if (found == greeting.capabilities.end() || found->second.signature() != Signature("r"))
    return false;
  return found->second.to<Buffer>().size() == nonceSize;
}

std::vector<char> copyOf(std::span<const char> bytes) {
  return {bytes.begin(), bytes.end()};
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

// The words differ, so that neither side's proof can be sent back as the other's.

std::string clientStatement(std::span<const char> hello, const std::string& challenge) {
  return "gv1 client" + digestOf(hello) + challenge;
}

std::string serverStatement(std::span<const char> hello, const std::string& challenge,
                            std::span<const char> welcome) {
  return "gv1 server" + digestOf(hello) + challenge + digestOf(welcome);
}

Handshake::Handshake(Role role, Identity own, const wire::Limits& limits)
    : own_(std::move(own)),
      limits_(limits),
      standing_(role == Role::Server ? Standing::AwaitsHello
                : own_.keys          ? Standing::AwaitsChallenge
                                     : Standing::AwaitsWelcome) {}

HandshakeStep Handshake::begin() {
  if (standing_ == Standing::AwaitsHello) return {};
  try {
    return sayHello();
  } catch (const std::exception& error) {
    return {{}, {}, error.what()};
  }
}

HandshakeStep Handshake::sayHello() {
  if (own_.keys) {
    const std::string nonce = makeNonce();
    own_.greeting.capabilities[nonceName] = AnyValue::from(Buffer(nonce.data(), nonce.size()));
  }
  hello_ = encodeGreeting(own_.greeting);
  return {{{FrameType::Hello, hello_}}, {}, {}};
}

HandshakeStep Handshake::step(const wire::Frame& frame) {
  const bool isServer = standing_ == Standing::AwaitsHello || standing_ == Standing::AwaitsProof;
  HandshakeStep step;
  try {
    if (!maySend(standing_, frame.header.type)) {
      step.refusal = refusalOf(standing_, frame.header.type);
    } else if (frame.header.type == FrameType::Error) {
      step.refusal = readRefusal(frame, limits_);
    } else if (frame.header.type == FrameType::Hello) {
      step = onHello(frame);
    } else if (standing_ == Standing::AwaitsProof) {
      step = onClientsProof(frame);
    } else if (frame.header.type == FrameType::Challenge) {
      step = onChallenge(frame);
    } else if (frame.header.type == FrameType::Proof) {
      proof_ = readBytes(frame);
      standing_ = Standing::AwaitsProvenWelcome;
    } else {
      step = onWelcome(frame);
    }
  } catch (const std::exception& error) {
    step.refusal = error.what();
    if (isServer) step.answers = {makeFrame(FrameType::Error, step.refusal, "s")};
  }
  if (step.peer) standing_ = Standing::Open;
  if (!step.refusal.empty()) standing_ = Standing::Closed;
  return step;
}

HandshakeStep Handshake::onHello(const wire::Frame& frame) {
  Greeting client = decodeGreeting(frame.bytes(), limits_);
  if (!own_.keys) return {welcome(), std::move(client), {}};
  if (!hasNonce(client))
    throw std::runtime_error("this side asks for a key, and the peer offers to prove none");
  peer_ = std::move(client);
  hello_ = copyOf(frame.bytes());
  challenge_ = makeNonce();
  standing_ = Standing::AwaitsProof;
  return {{makeBytesFrame(FrameType::Challenge, challenge_)}, {}, {}};
}

HandshakeStep Handshake::onClientsProof(const wire::Frame& frame) {
  if (!own_.keys->accepts(readBytes(frame), clientStatement(hello_, challenge_)))
    throw std::runtime_error("the peer's key is not that of this side");
  return {welcome(), std::move(peer_), {}};
}

std::vector<HandshakeFrame> Handshake::welcome() {
  HandshakeFrame greeting{FrameType::Welcome, encodeGreeting(own_.greeting)};
  if (!own_.keys) return {std::move(greeting)};
  const Proof proof = own_.keys->prove(serverStatement(hello_, challenge_, greeting.payload));
  return {makeBytesFrame(FrameType::Proof, proof), std::move(greeting)};
}

HandshakeStep Handshake::onChallenge(const wire::Frame& frame) {
  challenge_ = readBytes(frame);
  const Proof proof = own_.keys->prove(clientStatement(hello_, challenge_));
  standing_ = Standing::AwaitsServersProof;
  return {{makeBytesFrame(FrameType::Proof, proof)}, {}, {}};
}

HandshakeStep Handshake::onWelcome(const wire::Frame& frame) {
  if (own_.keys && !own_.keys->accepts(proof_, serverStatement(hello_, challenge_, frame.bytes())))
    throw std::runtime_error("the peer has not proved a key of this side");
  return {{}, decodeGreeting(frame.bytes(), limits_), {}};
}

/// A challenge or proof: 32 raw bytes.
std::string Handshake::readBytes(const wire::Frame& frame) const {
  Buffer bytes;
  wire::readValue(frame.bytes(), AnyReference::from(bytes), handshakeLimits(limits_));
  if (bytes.size() != nonceSize)
    throw std::runtime_error("the peer sent a challenge or proof of " +
                             std::to_string(bytes.size()) + " bytes, expected " +
                             std::to_string(nonceSize));
  return {static_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace gv::rpc
