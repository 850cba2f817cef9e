// A connection survives any bytes of its peer, ends once, and answers nothing before the handshake.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "law.h"
#include "src/rpc/connection.h"

namespace {

using gv::rpc::Connection;
using gv::rpc::Role;
using gv::wire::FrameType;

/// A stream without a network: counts what is sent, and is told what arrives. Replies to calls come
/// from the event loop's threads.
class DeafStream : public gv::net::Stream {
 public:
  void start(std::shared_ptr<gv::net::StreamHandler> handler) override { handler_ = handler; }
  bool send(std::span<const gv::net::Bytes> pieces) override {
    if (isClosed_) return false;
    for (const gv::net::Bytes piece : pieces) sent_ += piece.size();
    return true;
  }
  std::size_t pendingBytes() const override { return 0; }
  void close(const std::string& cause) override {
    if (!isClosed_.exchange(true)) cause_ = cause;
  }
  void closeAfterFlush(const std::string& cause, std::chrono::milliseconds) override {
    close(cause);
  }
  const std::string& peerName() const override { return name_; }
  const std::string& peerAddress() const override { return address_; }
  const std::string& localAddress() const override { return address_; }

  bool isClosed() const { return isClosed_; }
  std::size_t sent() const { return sent_; }
  void arrive(std::span<const char> bytes) {
    while (!bytes.empty() && !isClosed_) {
      const std::span<char> space = handler_->inputSpace();
      const std::size_t count = std::min(space.size(), bytes.size());
      std::copy_n(bytes.begin(), count, space.begin());
      handler_->onInput(count);
      bytes = bytes.subspan(count);
    }
  }
  void end() {
    const auto handler = std::move(handler_);
    handler->onClosed(isClosed_ ? cause_ : "connection closed by peer");
  }

 private:
  std::shared_ptr<gv::net::StreamHandler> handler_;
  std::string cause_;  // of the fuzzer's thread
  std::atomic<std::size_t> sent_{0};
  std::atomic<bool> isClosed_{false};
  const std::string name_ = "tcp://127.0.0.1:1";
  const std::string address_ = "127.0.0.1";
};

std::vector<char> greetingFrame(FrameType type, const gv::rpc::Greeting& greeting) {
  const std::vector<char> payload = gv::rpc::encodeGreeting(greeting);
  gv::wire::FrameHeader header;
  header.type = type;
  header.payloadSize = static_cast<std::uint32_t>(payload.size());
  std::vector<char> bytes(gv::wire::frameHeaderSize);
  gv::wire::encodeHeader(header,
                         std::span<char, gv::wire::frameHeaderSize>(bytes.data(), bytes.size()));
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

struct Told {
  int opened = 0;
  int closed = 0;
};

}  // namespace

// The first byte says who the connection is, whether a good greeting comes first, and how the rest
// is split.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const Role role = (data[0] & 1) != 0 ? Role::Client : Role::Server;
  const bool greets = (data[0] & 2) != 0;
  const std::size_t step = 1 + (data[0] >> 2);
  const std::span<const char> bytes(reinterpret_cast<const char*>(data + 1), size - 1);

  gv::rpc::Greeting own;
  own.sessionId = "fuzz";
  const auto stream = std::make_shared<DeafStream>();
  const auto told = std::make_shared<Told>();
  Connection::Events events;
  events.opened = [told](const auto&) { ++told->opened; };
  events.closed = [told](const auto&, const std::string&) { ++told->closed; };
  const auto connection = Connection::start(
      stream, role, own, std::weak_ptr<gv::rpc::ServiceHost>(), events, gv::wire::Limits());
  const std::size_t sentAtStart = stream->sent();
  if (greets) {
    stream->arrive(
        greetingFrame(role == Role::Server ? FrameType::Hello : FrameType::Welcome, own));
    fuzz::require(connection->isOpen(), "a good greeting opens the connection");
  }
  for (std::size_t at = 0; at < bytes.size() && !stream->isClosed(); at += step)
    stream->arrive(bytes.subspan(at, std::min(step, bytes.size() - at)));
  fuzz::require(told->opened <= 1, "a connection opens once");
  fuzz::require(told->opened == 1 || !connection->isOpen(), "open only when told so");
  // One refusal of the greeting at most: its text is bounded.
  if (told->opened == 0)
    fuzz::require(stream->sent() <= sentAtStart + 4096, "hardly an answer to a stranger");
  stream->end();
  fuzz::require(told->closed == 1 && !connection->isOpen(), "a connection ends exactly once");
  return 0;
}
