#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <gvmessaging/api.h>
#include <gvtype/anyvalue.h>

#include "src/rpc/keyring.h"
#include "src/rpc/standing.h"
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

/// Who this side is, and the keys that it and its peers have to prove; null: none is asked for.
struct Identity {
  Identity(Greeting said, std::shared_ptr<const KeyRing> proved = nullptr)
      : greeting(std::move(said)), keys(std::move(proved)) {}

  Greeting greeting;
  std::shared_ptr<const KeyRing> keys;
};

/// The greeting as the payload of a Hello or Welcome frame.
GVMESSAGING_API std::vector<char> encodeGreeting(const Greeting& greeting);
/// Throws std::runtime_error for a payload that is no greeting, or of a version not spoken here.
GVMESSAGING_API Greeting decodeGreeting(std::span<const char> payload, const wire::Limits& limits);

/// What a client's proof is of: the payload of its Hello and the server's challenge.
GVMESSAGING_API std::string clientStatement(std::span<const char> hello,
                                            const std::string& challenge);
/// What a server's proof is of: the same, and the payload of its Welcome.
GVMESSAGING_API std::string serverStatement(std::span<const char> hello,
                                            const std::string& challenge,
                                            std::span<const char> welcome);

/// A frame of the handshake that is to be sent; all else in its header is 0.
struct HandshakeFrame {
  wire::FrameType type;
  std::vector<char> payload;
};

/// What one side does next in the handshake: first it sends `answers`; then the connection is open
/// with `peer`, or ends with `refusal` as its cause, or goes on. A value.
struct HandshakeStep {
  std::vector<HandshakeFrame> answers;
  std::optional<Greeting> peer;
  std::string refusal;  ///< Empty unless it ends.
};

/// One side of one handshake. A stranger is told why it is refused, and nothing else. Decides only:
/// no sockets, threads or locks.
///
///     server without keys  AwaitsHello ──Hello / Welcome──> Open
///     server with keys     AwaitsHello ──Hello / Challenge──> AwaitsProof
///                              ──Proof / Proof, Welcome──> Open
///     client without keys  AwaitsWelcome ──Welcome──> Open
///     client with keys     AwaitsChallenge ──Challenge / Proof──> AwaitsServersProof
///                              ──Proof──> AwaitsProvenWelcome ──Welcome──> Open
class GVMESSAGING_API Handshake {
 public:
  Handshake(Role role, Identity own, const wire::Limits& limits);

  /// What this side does unasked: a client says Hello. To be called once, first.
  HandshakeStep begin();

  /// What becomes of the next frame.
  HandshakeStep step(const wire::Frame& frame);

  Standing standing() const { return standing_; }

 private:
  HandshakeStep sayHello();
  HandshakeStep onHello(const wire::Frame& frame);
  HandshakeStep onClientsProof(const wire::Frame& frame);
  HandshakeStep onChallenge(const wire::Frame& frame);
  HandshakeStep onWelcome(const wire::Frame& frame);
  std::vector<HandshakeFrame> welcome();
  std::string readBytes(const wire::Frame& frame) const;

  Identity own_;
  const wire::Limits limits_;
  Standing standing_;
  std::vector<char> hello_;  // the payload, until it is answered
  std::string challenge_;
  std::string proof_;  // the server's, until its Welcome shows what it is of
  std::optional<Greeting> peer_;
};

}  // namespace gv::rpc
