#pragma once

#include <array>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <gvmessaging/api.h>

namespace gv::rpc {

/// What shows a peer that this side has a key, without showing the key.
using Proof = std::array<char, 32>;

/// The keys that peers prove to each other. The first one is proved by this side; every one is
/// accepted of the other, so that keys can be changed one process at a time. Immutable; no text
/// that it makes holds anything of a key.
class GVMESSAGING_API KeyRing {
 public:
  /// Reads the text of a key file: a key a line, without the blanks around it; empty lines and
  /// those that begin with '#' are left out. Throws std::runtime_error where there is no key, or
  /// where a line holds anything but printable ASCII.
  static std::shared_ptr<const KeyRing> parse(std::string_view text);
  ~KeyRing();
  KeyRing(const KeyRing&) = delete;
  KeyRing& operator=(const KeyRing&) = delete;

  /// The proof of the first key over a statement: an HMAC with SHA-256.
  Proof prove(std::string_view statement) const;
  /// Whether `proof` is that of one of the keys. Takes the same time wherever it differs.
  bool accepts(std::string_view proof, std::string_view statement) const;

  /// Whether a key is short enough to be guessed from a proof.
  bool hasShortKey() const;

 private:
  KeyRing() = default;

  std::vector<std::string> keys_;
};

/// Overwrites what held a secret.
void wipe(std::string& text);

/// The SHA-256 digest of some bytes.
GVMESSAGING_API std::string digestOf(std::span<const char> bytes);
/// 32 bytes that nobody can foresee. Throws std::runtime_error where the system has none.
GVMESSAGING_API std::string makeNonce();

}  // namespace gv::rpc
