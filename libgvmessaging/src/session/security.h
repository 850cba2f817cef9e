#pragma once

#include <memory>
#include <string>

#include <gvmessaging/url.h>

#include "src/net/tlscontext.h"
#include "src/rpc/acceptor.h"
#include "src/rpc/keyring.h"

namespace gv {

/// Who may speak with a session, as the environment says: GV_AUTH_KEY_FILE, GV_LISTEN_SCOPE, and
/// for "tcps" addresses GV_TLS_CERT_FILE, GV_TLS_KEY_FILE and GV_TLS_CA_FILE. Each function throws
/// std::runtime_error, which names the variable and the cause, where one of them cannot be
/// followed: nothing is ever more open than was asked for. The log is told, too.
namespace security {

/// The keys that are proved; null where the variable is not set. Set to nothing, it names no file.
std::shared_ptr<const rpc::KeyRing> keys();

/// Who may come in by a port.
rpc::Door doorOf(const Url& url, const rpc::KeyRing* keys);

/// For connections to "tcps" addresses.
std::shared_ptr<const net::TlsContext> clientTls();

/// Says, once a process, when a port beyond loopback is open to whoever is near.
void warnIfOpen(const std::string& boundAddress, const rpc::Door& door, const rpc::KeyRing* keys);

}  // namespace security
}  // namespace gv
