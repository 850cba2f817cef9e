#pragma once

#include <string>

#include <gvmessaging/api.h>

#include "src/wire/frame.h"

namespace gv::rpc {

/// What one side of a connection waits for from the other.
enum class Standing {
  AwaitsHello,          ///< A server: of any client.
  AwaitsProof,          ///< A server with keys: it has sent its challenge.
  AwaitsWelcome,        ///< A client without keys.
  AwaitsChallenge,      ///< A client with keys.
  AwaitsServersProof,   ///< The same, which has sent its own.
  AwaitsProvenWelcome,  ///< The same, which has got the server's.
  Open,
  Closed,
};

/// Whether the peer may send such a frame now. What is refused here reaches nothing: no decoder of
/// its payload, no object, no table. The only place that decides this.
GVMESSAGING_API bool maySend(Standing standing, wire::FrameType type);

/// Why such a frame ends the connection, where it may not be sent.
GVMESSAGING_API std::string refusalOf(Standing standing, wire::FrameType type);

}  // namespace gv::rpc
