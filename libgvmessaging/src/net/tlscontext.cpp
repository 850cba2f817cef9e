#include "src/net/tlscontext.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <stdexcept>
#include <system_error>

namespace gv::net {
namespace {

constexpr const char* certificateName = "GV_TLS_CERT_FILE";
constexpr const char* keyName = "GV_TLS_KEY_FILE";
constexpr const char* authoritiesName = "GV_TLS_CA_FILE";

[[noreturn]] void refuse(const char* variable) {
  throw std::runtime_error(std::string("the file that ") + variable +
                           " names cannot be used: " + takeTlsError());
}

[[noreturn]] void refuseUnset(const char* variable, const char* consequence) {
  throw std::runtime_error(std::string(variable) + " is not set: " + consequence);
}

std::shared_ptr<SSL_CTX> makeContext(bool isServers) {
  const std::shared_ptr<SSL_CTX> context(
      SSL_CTX_new(isServers ? TLS_server_method() : TLS_client_method()), &SSL_CTX_free);
  if (!context) throw std::runtime_error("TLS cannot be used: " + takeTlsError());
  return context;
}

// A key with a pass phrase is an error, not a question on the terminal.
int refusePassPhrase(char*, int, int, void*) {
  return -1;
}

}  // namespace

std::string takeTlsError() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return "unknown error";
  if (ERR_SYSTEM_ERROR(code)) return std::generic_category().message(ERR_GET_REASON(code));
  const char* const reason = ERR_reason_error_string(code);
  return reason ? reason : "error " + std::to_string(code);
}

TlsContext::TlsContext(const TlsFiles& files, bool isServers)
    : isServers_(isServers), context_(makeContext(isServers)) {
  SSL_CTX* const context = context_.get();
  ERR_clear_error();
  SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(context, 0);
  SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE);
  SSL_CTX_set_default_passwd_cb(context, &refusePassPhrase);
  if (!files.certificate.empty() || !files.key.empty()) useCertificate(files);
  if (!files.authorities.empty()) believe(files);
}

void TlsContext::useCertificate(const TlsFiles& files) const {
  SSL_CTX* const context = context_.get();
  if (files.certificate.empty()) refuseUnset(certificateName, "there is no certificate to show");
  if (files.key.empty()) refuseUnset(keyName, "there is no key of the certificate");
  if (SSL_CTX_use_certificate_chain_file(context, files.certificate.c_str()) != 1)
    refuse(certificateName);
  if (SSL_CTX_use_PrivateKey_file(context, files.key.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(context) != 1)
    refuse(keyName);
}

void TlsContext::believe(const TlsFiles& files) const {
  if (SSL_CTX_load_verify_file(context_.get(), files.authorities.c_str()) != 1)
    refuse(authoritiesName);
  SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
}

std::shared_ptr<const TlsContext> TlsContext::forServers(const TlsFiles& files) {
  if (files.certificate.empty()) refuseUnset(certificateName, "there is no certificate to show");
  return std::shared_ptr<const TlsContext>(new TlsContext(files, true));
}

std::shared_ptr<const TlsContext> TlsContext::forClients(const TlsFiles& files) {
  if (files.authorities.empty())
    refuseUnset(authoritiesName, "the certificates of peers cannot be checked");
  return std::shared_ptr<const TlsContext>(new TlsContext(files, false));
}

ssl_st* TlsContext::open() const {
  SSL* const state = SSL_new(context_.get());
  if (!state) throw std::runtime_error("no TLS connection can be made: " + takeTlsError());
  return state;
}

}  // namespace gv::net
