#pragma once

#include <filesystem>
#include <memory>
#include <string>

struct evp_pkey_st;
struct x509_st;

namespace house {

/// A folder that goes with this.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string file(const std::string& name) const { return (path_ / name).string(); }
  /// Writes a file that its owner alone may read; returns its path.
  std::string write(const std::string& name, const std::string& text) const;

 private:
  std::filesystem::path path_;
};

/// Where a certificate and its key are, in PEM.
struct CertificateFiles {
  std::string certificate;
  std::string key;
};

/// Who signs certificates, made anew for a test.
class Authority {
 public:
  Authority(const TemporaryFolder& folder, const std::string& name);

  /// The certificate of who signs, also a self-made one of a peer.
  const CertificateFiles& own() const { return own_; }
  /// A certificate for `subjects`, as in "IP:127.0.0.1,DNS:localhost", good from now for so many
  /// days; negative: it has expired.
  CertificateFiles issue(const std::string& subjects, int days = 1) const;

 private:
  const TemporaryFolder& folder_;
  const std::string name_;
  std::shared_ptr<evp_pkey_st> key_;
  std::shared_ptr<x509_st> certificate_;
  CertificateFiles own_;
};

}  // namespace house
