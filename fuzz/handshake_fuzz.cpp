// A connection survives any bytes of its peer, ends once, answers nothing before the handshake, and
// with a key opens for nobody who does not have it.

#include <cstdint>
#include <string_view>

#include <gv/log.h>

#include "law.h"
#include "tests/memorypeer.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gv::log::setLevel(gv::log::Level::Silent);  // dropped posts are told of, a record each
  return 0;
}

// The first byte says who the connection is, whether a good greeting comes first, whether it has a
// key, and how the rest is split.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using gv::rpc::Role;
  using gv::wire::FrameType;
  if (size == 0) return 0;
  const Role role = (data[0] & 1) != 0 ? Role::Client : Role::Server;
  const bool hasKey = (data[0] & 0x80) != 0;
  const bool greets = (data[0] & 2) != 0 && !hasKey;
  const std::size_t piece = 1 + (data[0] >> 2) % 32;
  const std::string_view bytes(reinterpret_cast<const char*>(data + 1), size - 1);

  gv::rpc::Greeting own;
  own.sessionId = "fuzz";
  static const auto keys = gv::rpc::KeyRing::parse("a key that no input can know");
  gv::MemoryPeer peer(role, {own, hasKey ? keys : nullptr}, {});
  peer.heardSoFar();
  if (greets) {
    peer.tell(gv::greetingFrame(role == Role::Server ? FrameType::Hello : FrameType::Welcome, own));
    fuzz::require(peer.connection->isOpen(), "a good greeting opens the connection");
  }
  peer.tell(bytes, piece);
  fuzz::require(peer.opened <= 1, "a connection opens once");
  fuzz::require(!hasKey || peer.opened == 0, "nobody gets in without the key");
  fuzz::require(peer.opened == 1 || !peer.connection->isOpen(), "open only when told so");
  // One refusal of the greeting at most: its text is bounded.
  if (peer.opened == 0)
    fuzz::require(peer.heardSoFar().size() <= 4096, "hardly an answer to a stranger");
  peer.close();
  fuzz::require(peer.causes.size() == 1 && !peer.connection->isOpen(),
                "a connection ends exactly once");
  return 0;
}
