#include "support/certificates.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace house {
namespace {

constexpr long secondsOfDay = 86'400;

void require(bool isRight, const std::string& what) {
  if (!isRight) throw std::runtime_error("certificates: cannot " + what);
}

std::shared_ptr<EVP_PKEY> makeKey() {
  std::shared_ptr<EVP_PKEY> key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  require(key != nullptr, "make a key");
  return key;
}

void extend(X509* certificate, X509* issuer, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
  require(extension != nullptr, "extend by " + value);
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

std::shared_ptr<X509> makeCertificate(const std::string& name, EVP_PKEY* key, int days) {
  static std::atomic<long> serial{0};
  std::shared_ptr<X509> made(X509_new(), &X509_free);
  X509_set_version(made.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(made.get()), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(made.get()), days < 0 ? 2 * days * secondsOfDay : -60);
  X509_gmtime_adj(X509_getm_notAfter(made.get()), days * secondsOfDay);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(made.get()), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
  X509_set_pubkey(made.get(), key);
  return made;
}

CertificateFiles save(const TemporaryFolder& folder, const std::string& name, X509* certificate,
                      EVP_PKEY* key) {
  const CertificateFiles files{folder.file(name + ".crt"), folder.file(name + ".key")};
  const auto write = [](const std::string& path, const auto& put) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "w"),
                                                               &std::fclose);
    require(file != nullptr && put(file.get()) == 1, "write " + path);
  };
  write(files.certificate, [&](std::FILE* file) { return PEM_write_X509(file, certificate); });
  write(files.key, [&](std::FILE* file) {
    return PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr);
  });
  return files;
}

}  // namespace

TemporaryFolder::TemporaryFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "secrets-XXXXXX").string();
  require(::mkdtemp(pattern.data()) != nullptr, "make a folder");
  path_ = pattern;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryFolder::write(const std::string& name, const std::string& text) const {
  const std::string path = file(name);
  std::ofstream(path, std::ios::binary) << text;
  std::filesystem::permissions(path, std::filesystem::perms::owner_read);
  return path;
}

Authority::Authority(const TemporaryFolder& folder, const std::string& name)
    : folder_(folder),
      name_(name),
      key_(makeKey()),
      certificate_(makeCertificate(name, key_.get(), 2)) {
  X509* const own = certificate_.get();
  X509_set_issuer_name(own, X509_get_subject_name(own));
  extend(own, own, NID_basic_constraints, "critical,CA:TRUE");
  extend(own, own, NID_subject_alt_name, "IP:127.0.0.1");
  require(X509_sign(own, key_.get(), EVP_sha256()) > 0, "sign");
  own_ = save(folder_, name_, own, key_.get());
}

CertificateFiles Authority::issue(const std::string& subjects, int days) const {
  static std::atomic<int> number{0};
  const std::string name = name_ + "-" + std::to_string(++number);
  const auto key = makeKey();
  const auto issued = makeCertificate(name, key.get(), days);
  X509_set_issuer_name(issued.get(), X509_get_subject_name(certificate_.get()));
  extend(issued.get(), certificate_.get(), NID_subject_alt_name, subjects);
  require(X509_sign(issued.get(), key_.get(), EVP_sha256()) > 0, "sign");
  return save(folder_, name, issued.get(), key.get());
}

}  // namespace house
