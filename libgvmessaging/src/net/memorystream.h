#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include <gvmessaging/api.h>

#include "src/net/stream.h"

namespace gv::net {

/// One of two connected ends within this process, which move nothing by themselves: what one sends
/// waits until somebody steps the other. So whoever steps decides what arrives when and in which
/// pieces, and the handler is called by nobody else.
///
///     auto [near, far] = MemoryStream::makePair();
///     near->start(handler);
///     far->send(bytes);
///     near->step(1);   // the handler gets the first byte
///
/// An end that was started and its handler keep each other alive until the end that step() tells.
class GVMESSAGING_API MemoryStream final : public Stream {
 public:
  using Pair = std::pair<std::shared_ptr<MemoryStream>, std::shared_ptr<MemoryStream>>;
  static constexpr std::size_t everything = std::numeric_limits<std::size_t>::max();

  static Pair makePair();
  /// The other end sees it as closed, unless it ended before.
  ~MemoryStream() override;

  /// Hands at most @p most bytes of what the other end sent to the handler; where this end has been
  /// closed, or the other one was and all its bytes have arrived, tells the handler that instead.
  /// Returns how many bytes the handler got. Not to be called from within the handler.
  std::size_t step(std::size_t most = everything);

  /// Takes what the other end sent, for whoever plays this end without a handler.
  std::string take();
  /// Whether nothing can arrive any more: this end has ended, or the other one and all is taken.
  bool hasEnded() const;

  /// Ends both sides at once, with what is under way lost.
  void cut(const std::string& cause);

  void start(std::shared_ptr<StreamHandler> handler) override;
  using Stream::send;
  bool send(std::span<const Bytes> pieces) override;
  std::size_t pendingBytes() const override;
  void close(const std::string& cause) override;
  /// Ends when the other side has taken everything; there is no clock here, so no bound.
  void closeAfterFlush(const std::string& cause, std::chrono::milliseconds bound) override;
  const std::string& peerName() const override;
  const std::string& peerAddress() const override;
  const std::string& localAddress() const override;

 private:
  struct Link;
  struct End;

  MemoryStream(std::shared_ptr<Link> link, int side) : link_(std::move(link)), side_(side) {}

  End& own() const;
  End& other() const;
  std::size_t handOver(std::size_t most);
  bool mayReceive() const;
  std::size_t takeInto(std::span<char> space, std::size_t most);
  bool endIsDueLocked(std::string& cause) const;

  const std::shared_ptr<Link> link_;
  const int side_;
  std::shared_ptr<StreamHandler> handler_;  // of the thread that steps
};

}  // namespace gv::net
