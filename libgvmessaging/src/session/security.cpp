#include "src/session/security.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <gv/log.h>
#include <gv/os.h>

#include "src/directory/endpoints.h"

namespace gv::security {
namespace {

constexpr const char* category = "gvmessaging.session";
constexpr const char* keyVariable = "GV_AUTH_KEY_FILE";
constexpr const char* scopeVariable = "GV_LISTEN_SCOPE";
constexpr std::size_t largestKeyFile = 64u << 10;

// Without the path: what is said here may travel.
[[noreturn]] void refuseKeyFile(const std::string& cause) {
  throw std::runtime_error(std::string("the key file that ") + keyVariable +
                           " names cannot be used: " + cause);
}

std::string readKeyFile(const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (error) refuseKeyFile(error.message());
  // A device or pipe could have no end.
  if (!std::filesystem::is_regular_file(status)) refuseKeyFile("it is no regular file");
  std::ifstream file(path, std::ios::binary);
  if (!file) refuseKeyFile(std::generic_category().message(errno));
  std::string text(largestKeyFile + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (file.bad()) refuseKeyFile("it cannot be read");
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (text.size() > largestKeyFile) refuseKeyFile("it is larger than 64 KiB");
  return text;
}

bool isForAll(const std::string& path) {
  std::error_code error;
  const auto permissions = std::filesystem::status(path, error).permissions();
  using std::filesystem::perms;
  return (permissions & (perms::others_read | perms::others_write)) != perms::none;
}

void warnOnce(std::atomic<bool>& wasSaid, const std::string& text) {
  if (!wasSaid.exchange(true)) GV_LOG(log::Level::Warning, category, "security", text);
}

bool opensToAll() {
  const std::string scope = os::getenv(scopeVariable);
  if (scope.empty() || scope == "link") return false;
  if (scope == "any") return true;
  throw std::runtime_error(std::string(scopeVariable) + " is neither 'link' nor 'any'");
}

net::TlsFiles tlsFiles() {
  return {os::getenv("GV_TLS_CERT_FILE"), os::getenv("GV_TLS_KEY_FILE"),
          os::getenv("GV_TLS_CA_FILE")};
}

/// Passes the error on, and tells it the log: the classic interface's error names no cause.
template <class Read>
auto told(const Read& read) {
  try {
    return read();
  } catch (const std::exception& error) {
    GV_LOG(log::Level::Error, category, "security", error.what());
    throw;
  }
}

std::shared_ptr<const rpc::KeyRing> readKeys() {
  static std::atomic<bool> saidReadable{false}, saidShort{false};
  const char* const path = std::getenv(keyVariable);
  if (!path) return nullptr;
  std::string text = readKeyFile(path);
  std::shared_ptr<const rpc::KeyRing> ring;
  try {
    ring = rpc::KeyRing::parse(text);
  } catch (const std::exception& error) {
    refuseKeyFile(error.what());
  }
  rpc::wipe(text);
  if (isForAll(path))
    warnOnce(saidReadable,
             std::string("every user of this machine can read or change the file that ") +
                 keyVariable + " names");
  if (ring->hasShortKey())
    warnOnce(saidShort, std::string("a key in the file that ") + keyVariable +
                            " names is shorter than 16 characters and can be guessed");
  return ring;
}

}  // namespace

std::shared_ptr<const rpc::KeyRing> keys() {
  return told(&readKeys);
}

rpc::Door doorOf(const Url& url, const rpc::KeyRing* keys) {
  return told([&] {
    rpc::Door door;
    door.isLinkOnly = !opensToAll() && !keys;
    if (url.protocol() == "tcps") door.tls = net::TlsContext::forServers(tlsFiles());
    return door;
  });
}

std::shared_ptr<const net::TlsContext> clientTls() {
  return told([] { return net::TlsContext::forClients(tlsFiles()); });
}

void warnIfOpen(const std::string& boundAddress, const rpc::Door& door, const rpc::KeyRing* keys) {
  static std::atomic<bool> wasSaid{false};
  const bool asksForCertificates = door.tls && !tlsFiles().authorities.empty();
  if (keys || asksForCertificates || directory::isLoopback(boundAddress)) return;
  warnOnce(wasSaid, std::string("listening without a key: ") +
                        (door.isLinkOnly ? "every machine on a link of this one"
                                         : "every machine that can reach this one") +
                        " may call its modules; " + keyVariable + " asks for a key");
}

}  // namespace gv::security
