#pragma once

#include <memory>
#include <string>

#include <gvmessaging/api.h>

struct ssl_ctx_st;
struct ssl_st;

namespace gv::net {

/// Where certificate, its key and the certificates of who signs are, in PEM; empty: not given.
struct TlsFiles {
  std::string certificate;
  std::string key;
  std::string authorities;
};

/// What the TLS connections of one side have in common: version 1.3, certificate, key, and whom it
/// believes. Immutable; any thread. Errors name neither files nor what is in them.
class GVMESSAGING_API TlsContext {
 public:
  /// Of who accepts: certificate and key are required. With authorities, clients must show a
  /// certificate that these signed. Throws std::runtime_error.
  static std::shared_ptr<const TlsContext> forServers(const TlsFiles& files);
  /// Of who connects: authorities are required, as a server that is not checked could be anybody.
  /// Certificate and key are shown to servers that ask. Throws std::runtime_error.
  static std::shared_ptr<const TlsContext> forClients(const TlsFiles& files);

  /// The state of a new connection: OpenSSL's, owned by the caller. Throws std::runtime_error.
  ssl_st* open() const;
  bool isServers() const { return isServers_; }

 private:
  TlsContext(const TlsFiles& files, bool isServers);

  void useCertificate(const TlsFiles& files) const;
  void believe(const TlsFiles& files) const;

  const bool isServers_;
  const std::shared_ptr<ssl_ctx_st> context_;
};

/// The oldest error that OpenSSL has noted in this thread, in its own words; clears the others.
std::string takeTlsError();

}  // namespace gv::net
