#include "src/net/tlsstream.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "src/net/resolve.h"

namespace gv::net {
namespace {

// A record of TLS holds no more; it is what one read may bring.
constexpr std::size_t recordSize = 16u << 10;
// What is encrypted before it is passed on.
constexpr int passedOn = 64 << 10;

const std::string failed = "TLS failed: ";

std::string encryptedName(const std::string& name) {
  const std::string plain = "tcp:";
  return name.starts_with(plain) ? "tcps:" + name.substr(plain.size()) : name;
}

bool expectAddress(SSL* state, const std::string& address) {
  return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(state), address.c_str()) == 1;
}

bool expectName(SSL* state, const std::string& name) {
  X509_VERIFY_PARAM* const wanted = SSL_get0_param(state);
  X509_VERIFY_PARAM_set_hostflags(wanted, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  // The macro for this casts in a way that the compiler warns of.
  return X509_VERIFY_PARAM_set1_host(wanted, name.c_str(), 0) == 1 &&
         SSL_ctrl(state, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                  const_cast<char*>(name.c_str())) == 1;
}

void expectHost(SSL* state, const std::string& host) {
  const bool isNumeric = numericEndpoint(host, 0).has_value();
  if (!(isNumeric ? expectAddress(state, host) : expectName(state, host)))
    throw std::runtime_error("no certificate can be for the host '" + host + "'");
}

/// A certificate that was refused says more than that it was.
std::string failureOf(const SSL* state) {
  const long verified = SSL_get_verify_result(state);
  const std::string noted = takeTlsError();
  if (verified == X509_V_OK) return failed + noted;
  return failed + "the peer's certificate is refused: " + X509_verify_cert_error_string(verified);
}

}  // namespace

void TlsStream::Free::operator()(ssl_st* state) const {
  SSL_free(state);
}

std::shared_ptr<Stream> TlsStream::over(std::shared_ptr<Stream> inner, const TlsContext& context,
                                        const std::string& host) {
  return std::shared_ptr<Stream>(new TlsStream(std::move(inner), context, host));
}

TlsStream::TlsStream(std::shared_ptr<Stream> inner, const TlsContext& context,
                     const std::string& host)
    : inner_(std::move(inner)),
      peerName_(encryptedName(inner_->peerName())),
      received_(recordSize),
      state_(context.open()) {
  BIO* const in = BIO_new(BIO_s_mem());
  BIO* const out = BIO_new(BIO_s_mem());
  if (!in || !out) {
    BIO_free(in);
    BIO_free(out);
    throw std::runtime_error("no TLS connection can be made: out of memory");
  }
  BIO_set_mem_eof_return(in, -1);  // empty for now: more may come
  SSL_set_bio(state_.get(), in, out);
  if (context.isServers()) {
    SSL_set_accept_state(state_.get());
  } else {
    SSL_set_connect_state(state_.get());
    expectHost(state_.get(), host);
  }
}

void TlsStream::start(std::shared_ptr<StreamHandler> handler) {
  handler_ = std::move(handler);
  inner_->start(shared_from_this());
  std::string failure;
  {
    const std::lock_guard lock(mutex_);
    shakeHandsLocked(failure);  // who connects speaks first
  }
  end(failure);
}

bool TlsStream::send(std::span<const Bytes> pieces) {
  const std::lock_guard lock(mutex_);
  if (!isSecure_) {
    for (const Bytes piece : pieces) early_.insert(early_.end(), piece.begin(), piece.end());
    earlyBytes_ = early_.size();
    return true;
  }
  // A header and a small payload leave as one record.
  std::vector<char> small;
  for (const Bytes piece : pieces) {
    if (small.size() + piece.size() <= recordSize) {
      small.insert(small.end(), piece.begin(), piece.end());
      continue;
    }
    if (!encryptLocked(small) || !encryptLocked(piece)) return false;
    small.clear();
  }
  return encryptLocked(small) && flushLocked();
}

/// Half a message must not be followed by another: where this fails, the stream ends.
bool TlsStream::encryptLocked(Bytes bytes) {
  while (!bytes.empty()) {
    ERR_clear_error();
    std::size_t taken = 0;
    if (SSL_write_ex(state_.get(), bytes.data(), bytes.size(), &taken) != 1) {
      inner_->close(failureOf(state_.get()));
      return false;
    }
    bytes = bytes.subspan(taken);
    if (BIO_pending(SSL_get_wbio(state_.get())) >= passedOn && !flushLocked()) return false;
  }
  return true;
}

/// Gives what was encrypted to the inner stream; false when that has ended.
bool TlsStream::flushLocked() {
  BIO* const out = SSL_get_wbio(state_.get());
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(out, &bytes);
  if (size <= 0) return true;
  const bool isSent = inner_->send(Bytes(bytes, static_cast<std::size_t>(size)));
  static_cast<void>(BIO_reset(out));
  return isSent;
}

std::size_t TlsStream::pendingBytes() const {
  return inner_->pendingBytes() + earlyBytes_;
}

/// Whether the state made progress; where it cannot ever, `failure` says why.
bool TlsStream::proceedLocked(int result, std::string& failure) {
  if (result == 1) return true;
  const int error = SSL_get_error(state_.get(), result);
  if (error == SSL_ERROR_WANT_READ) return false;
  failure = error == SSL_ERROR_ZERO_RETURN ? "connection closed by peer" : failureOf(state_.get());
  return false;
}

void TlsStream::shakeHandsLocked(std::string& failure) {
  if (isSecure_) return;
  ERR_clear_error();
  isSecure_ = proceedLocked(SSL_do_handshake(state_.get()), failure);
  if (isSecure_) {
    encryptLocked(early_);
    early_ = {};
    earlyBytes_ = 0;
  }
  flushLocked();  // of a failure, too: the other side is told why
}

/// What arrived, as far as there is room for it.
std::size_t TlsStream::decrypt(std::span<char> space, std::string& failure) {
  const std::lock_guard lock(mutex_);
  shakeHandsLocked(failure);
  if (!isSecure_ || !failure.empty()) return 0;
  ERR_clear_error();
  std::size_t count = 0;
  const int result = SSL_read_ex(state_.get(), space.data(), space.size(), &count);
  proceedLocked(result, failure);
  flushLocked();  // reading may answer
  return count;
}

void TlsStream::onInput(std::size_t count) {
  // Held: when this thread is replaced, the stream may be let go of before it has returned.
  const auto handler = handler_;
  if (!handler) return;
  if (count > 0) {
    const std::lock_guard lock(mutex_);
    BIO_write(SSL_get_rbio(state_.get()), received_.data(), static_cast<int>(count));
  } else {
    handler->onInput(0);  // goes on where a replaced thread left off
  }
  std::string failure;
  std::size_t decrypted = 1;
  while (decrypted > 0 && failure.empty() && !inner_->hasLostTurn() && !inner_->isTurnOver()) {
    decrypted = decrypt(handler->inputSpace(), failure);
    handler->onInput(decrypted);
  }
  end(failure);
}

void TlsStream::end(const std::string& failure) {
  if (!failure.empty()) inner_->closeAfterFlush(failure);
}

void TlsStream::onClosed(const std::string& cause) {
  const auto handler = std::exchange(handler_, nullptr);
  if (!handler) return;
  bool isEarly = false;
  {
    const std::lock_guard lock(mutex_);
    isEarly = !isSecure_ && !cause.starts_with(failed);
  }
  handler->onClosed(isEarly ? failed + (cause + ", before its handshake had ended") : cause);
}

void TlsStream::closeAfterFlush(const std::string& cause, std::chrono::milliseconds bound) {
  {
    const std::lock_guard lock(mutex_);
    ERR_clear_error();
    if (isSecure_) SSL_shutdown(state_.get());
    flushLocked();
  }
  inner_->closeAfterFlush(cause, bound);
}

}  // namespace gv::net
