#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace gv::wire {

/// What is taken from a peer at most. A value: each connection has its own copy.
struct Limits {
  /// Payload bytes of one frame, before and after the handshake is finished.
  std::uint32_t handshakePayload = 64u << 10;
  std::uint32_t payload = 64u << 20;

  /// Levels of containers and dynamic values within each other, and of signatures.
  unsigned nesting = 64;

  /// Bytes of values that decoding one payload may make, each element counted as one at least.
  std::size_t decodedBytes = std::size_t{256} << 20;

  /// The same for the payloads of the handshake.
  std::size_t handshakeDecodedBytes = std::size_t{1} << 20;

  /// Calls of one peer that were read and have not ended, and the bytes of their arguments and of
  /// events that wait for their handlers.
  std::size_t acceptedCalls = 10'000;
  std::size_t acceptedBytes = std::size_t{256} << 20;

  /// Objects lent to one peer, or by it; and the signals that one peer listens to.
  std::size_t lentObjects = 10'000;
  std::size_t subscriptions = 10'000;

  /// From accepting or connecting to the end of the handshake, however busily the peer sends.
  std::chrono::milliseconds handshakeTime{10'000};

  /// Handshakes under way, in all and from one address.
  unsigned unfinishedHandshakes = 64;
  unsigned unfinishedPerAddress = 8;

  /// A handshake under way for longer gives its place to a connection that waits for one.
  std::chrono::milliseconds makeRoomAfter{1'000};

  /// Connections accepted but not read while all places are taken.
  unsigned parkedConnections = 256;

  /// Output waiting for a peer that does not read: above the first its requests are read in small
  /// portions only and its queued calls begin slowly, above half the second these do not, above the
  /// second nothing is read. Of events, the first is the most.
  std::size_t outputSlow = std::size_t{16} << 20;
  std::size_t outputStop = std::size_t{128} << 20;

  /// How long a peer that is sent events may take nothing of the output that waits for it.
  std::chrono::milliseconds outputPatience{10'000};
};

}  // namespace gv::wire
