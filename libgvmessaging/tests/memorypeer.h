#pragma once

#include <array>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "src/net/memorystream.h"
#include "src/rpc/connection.h"

namespace gv {

inline wire::FrameHeader headerOf(std::string_view frame) {
  wire::FrameHeader header;
  const auto bytes = std::span<const char>(frame).first<wire::frameHeaderSize>();
  if (const auto error = wire::decodeHeader(bytes, header)) throw std::runtime_error(*error);
  return header;
}

/// The bytes of a frame; its payload size is that of @p payload.
inline std::string frameText(wire::FrameHeader header, std::string_view payload) {
  header.payloadSize = static_cast<std::uint32_t>(payload.size());
  std::array<char, wire::frameHeaderSize> bytes;
  wire::encodeHeader(header, bytes);
  return std::string(bytes.data(), bytes.size()) + std::string(payload);
}

/// A Hello or Welcome.
inline std::string greetingFrame(wire::FrameType type, const rpc::Greeting& greeting) {
  wire::FrameHeader header;
  header.type = type;
  const std::vector<char> payload = rpc::encodeGreeting(greeting);
  return frameText(header, {payload.data(), payload.size()});
}

/// A connection without a network, and the far end of it in the hands of a test.
class MemoryPeer {
 public:
  using Objects = std::map<unsigned, Object<Empty>>;

  /// @p role, @p own and @p objects are those of the connection.
  MemoryPeer(rpc::Role role, const rpc::Identity& own, Objects objects,
             const wire::Limits& limits = {}) {
    host_ = std::make_shared<Host>(std::move(objects));
    std::tie(near_, far_) = net::MemoryStream::makePair();
    rpc::Connection::Events events;
    events.opened = [this](const auto&) { ++opened; };
    events.closed = [this](const auto&, const std::string& cause) { causes.push_back(cause); };
    connection = rpc::Connection::start(near_, role, own, host_, std::move(events), limits);
  }
  ~MemoryPeer() { close(); }
  MemoryPeer(const MemoryPeer&) = delete;
  MemoryPeer& operator=(const MemoryPeer&) = delete;

  /// Sends bytes, which the connection gets in pieces of @p piece bytes.
  void tell(std::string_view bytes, std::size_t piece = net::MemoryStream::everything) {
    far_->send(net::Bytes(bytes));
    while (near_->step(piece) > 0) {
    }
  }
  /// Waits for the next frame of the connection; empty when it has ended.
  std::string hear() {
    while (!isComplete()) {
      if (far_->hasEnded()) return {};
      heard_ += far_->take();
      near_->step();
      std::this_thread::yield();
    }
    const std::size_t size = wire::frameHeaderSize + headerOf(heard_).payloadSize;
    std::string frame = heard_.substr(0, size);
    heard_.erase(0, size);
    return frame;
  }
  std::string ask(std::string_view bytes) {
    tell(bytes);
    return hear();
  }
  /// Everything that the connection has sent up to now.
  std::string heardSoFar() { return std::exchange(heard_, {}) + far_->take(); }
  /// The peer goes away in good order.
  void close() {
    far_->close("the peer has gone");
    while (near_->step() > 0) {
    }
  }
  void cut() {
    far_->cut("cut");
    near_->step();
  }

  std::shared_ptr<rpc::Connection> connection;
  int opened = 0;
  std::vector<std::string> causes;  // of the connection's end

 private:
  struct Host : rpc::ServiceHost {
    explicit Host(Objects all) : objects(std::move(all)) {}
    Object<Empty> findService(unsigned id) const override {
      const auto found = objects.find(id);
      return found == objects.end() ? Object<Empty>() : found->second;
    }
    Figures figures() const override { return {}; }
    const Objects objects;
  };

  bool isComplete() const {
    return heard_.size() >= wire::frameHeaderSize &&
           heard_.size() >= wire::frameHeaderSize + headerOf(heard_).payloadSize;
  }

  std::shared_ptr<Host> host_;
  std::shared_ptr<net::MemoryStream> near_;
  std::shared_ptr<net::MemoryStream> far_;
  std::string heard_;
};

}  // namespace gv
