#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "src/net/stream.h"
#include "src/net/tlscontext.h"

namespace gv::net {

/// A stream that is encrypted on its way, over another one. Its handler gets no byte before the
/// other side has shown what the context asks of it, and what is sent before then waits. Where the
/// handshake of TLS fails the stream ends with the reason; how long it may take is the owner's to
/// bound.
class TlsStream final : public Stream,
                        public StreamHandler,
                        public std::enable_shared_from_this<TlsStream> {
 public:
  /// Takes over a stream that was not started. `host` is the name or address that the other side's
  /// certificate must be for; nothing is asked of a client's. Throws std::runtime_error.
  GVMESSAGING_API static std::shared_ptr<Stream> over(std::shared_ptr<Stream> inner,
                                                      const TlsContext& context,
                                                      const std::string& host);

  void start(std::shared_ptr<StreamHandler> handler) override;
  using Stream::send;
  bool send(std::span<const Bytes> pieces) override;
  void readWhile(const std::function<bool()>& isWanted) override { inner_->readWhile(isWanted); }
  void expectUnasked() override { inner_->expectUnasked(); }
  bool hasLostTurn() const override { return inner_->hasLostTurn(); }
  bool isTurnOver() override { return inner_->isTurnOver(); }
  void restAfterTurn() override { inner_->restAfterTurn(); }
  std::size_t pendingBytes() const override;
  std::chrono::milliseconds stalledFor() const override { return inner_->stalledFor(); }
  void close(const std::string& cause) override { inner_->close(cause); }
  void closeAfterFlush(const std::string& cause, std::chrono::milliseconds bound) override;
  const std::string& peerName() const override { return peerName_; }
  const std::string& peerAddress() const override { return inner_->peerAddress(); }
  const std::string& localAddress() const override { return inner_->localAddress(); }

 private:
  struct Free {
    void operator()(ssl_st* state) const;
  };

  TlsStream(std::shared_ptr<Stream> inner, const TlsContext& context, const std::string& host);

  std::span<char> inputSpace() override { return received_; }
  void onInput(std::size_t count) override;
  void onClosed(const std::string& cause) override;

  std::size_t decrypt(std::span<char> space, std::string& failure);
  bool proceedLocked(int result, std::string& failure);
  void shakeHandsLocked(std::string& failure);
  bool encryptLocked(Bytes bytes);
  bool flushLocked();
  void end(const std::string& failure);

  // Constant after construction
  const std::shared_ptr<Stream> inner_;
  const std::string peerName_;

  // Of the thread that reads, or ends the stream
  std::shared_ptr<StreamHandler> handler_;
  std::vector<char> received_;  // encrypted

  // Guards the state and what follows, and is held while the inner stream takes what was
  // encrypted: in the order in which it was.
  mutable std::mutex mutex_;
  const std::unique_ptr<ssl_st, Free> state_;
  bool isSecure_ = false;    // the handshake is done
  std::vector<char> early_;  // what was sent before

  std::atomic<std::size_t> earlyBytes_{0};  // looked at while another thread encrypts much
};

}  // namespace gv::net
