#include "src/rpc/keyring.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <stdexcept>

namespace gv::rpc {
namespace {

constexpr std::size_t shortKey = 16;

const unsigned char* asBytes(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

Proof proofOf(const std::string& key, std::string_view statement) {
  Proof proof;
  unsigned size = 0;
  const auto* const made =
      HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), asBytes(statement.data()),
           statement.size(), reinterpret_cast<unsigned char*>(proof.data()), &size);
  if (!made || size != proof.size()) throw std::runtime_error("no proof of the key can be made");
  return proof;
}

std::string_view trimmed(std::string_view line) {
  constexpr std::string_view blanks = " \t\r";
  const std::size_t begin = line.find_first_not_of(blanks);
  if (begin == std::string_view::npos) return {};
  return line.substr(begin, line.find_last_not_of(blanks) - begin + 1);
}

bool isPrintable(char c) {
  return c >= ' ' && c <= '~';
}

}  // namespace

std::shared_ptr<const KeyRing> KeyRing::parse(std::string_view text) {
  const std::shared_ptr<KeyRing> ring(new KeyRing);
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = trimmed(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.empty() || line.front() == '#') continue;
    if (!std::all_of(line.begin(), line.end(), isPrintable))
      throw std::runtime_error("line " + std::to_string(number) +
                               " holds bytes that are no printable ASCII");
    ring->keys_.emplace_back(line);
  }
  if (ring->keys_.empty()) throw std::runtime_error("it holds no key");
  return ring;
}

KeyRing::~KeyRing() {
  for (std::string& key : keys_) wipe(key);
}

Proof KeyRing::prove(std::string_view statement) const {
  return proofOf(keys_.front(), statement);
}

bool KeyRing::accepts(std::string_view proof, std::string_view statement) const {
  if (proof.size() != Proof().size()) return false;
  bool isRight = false;
  for (const std::string& key : keys_) {
    const Proof expected = proofOf(key, statement);
    isRight |= CRYPTO_memcmp(proof.data(), expected.data(), expected.size()) == 0;
  }
  return isRight;
}

bool KeyRing::hasShortKey() const {
  return std::any_of(keys_.begin(), keys_.end(),
                     [](const std::string& key) { return key.size() < shortKey; });
}

void wipe(std::string& text) {
  OPENSSL_cleanse(text.data(), text.size());
}

std::string digestOf(std::span<const char> bytes) {
  std::string digest(32, '\0');
  if (EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(digest.data()),
                 nullptr, EVP_sha256(), nullptr) != 1)
    throw std::runtime_error("no digest can be made");
  return digest;
}

std::string makeNonce() {
  std::string nonce(32, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(nonce.data()), static_cast<int>(nonce.size())) !=
      1)
    throw std::runtime_error("the system gives no random bytes");
  return nonce;
}

}  // namespace gv::rpc
