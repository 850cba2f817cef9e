#include "src/rpc/standing.h"

namespace gv::rpc {

bool maySend(Standing standing, wire::FrameType type) {
  using Type = wire::FrameType;
  switch (standing) {
    case Standing::AwaitsHello:
      return type == Type::Hello;
    case Standing::AwaitsProof:
      return type == Type::Proof;
    case Standing::AwaitsWelcome:
      return type == Type::Welcome || type == Type::Error;
    case Standing::AwaitsChallenge:
      return type == Type::Challenge || type == Type::Error;
    case Standing::AwaitsServersProof:
      return type == Type::Proof || type == Type::Error;
    case Standing::AwaitsProvenWelcome:
      return type == Type::Welcome;
    case Standing::Open:
      return type == Type::Call || type == Type::Post || type == Type::Reply ||
             type == Type::Error || type == Type::Event;
    case Standing::Closed:
      return false;
  }
  return false;
}

std::string refusalOf(Standing standing, wire::FrameType type) {
  if (standing == Standing::Closed) return "the connection has ended";
  if (standing == Standing::Open) return "the peer sent a handshake frame after the handshake";
  if (standing == Standing::AwaitsWelcome && type == wire::FrameType::Challenge)
    return "the peer asks for a key, and GV_AUTH_KEY_FILE is not set here";
  if (standing == Standing::AwaitsChallenge && type == wire::FrameType::Welcome)
    return "the peer asks for no key and proves none, and GV_AUTH_KEY_FILE is set here";
  return "the peer sent another frame before the handshake";
}

}  // namespace gv::rpc
