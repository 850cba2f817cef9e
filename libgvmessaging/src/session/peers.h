#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gv/future.h>
#include <gvmessaging/serviceinfo.h>

#include "src/rpc/acceptor.h"
#include "src/rpc/connection.h"
#include "src/session/dialing.h"
#include "src/session/security.h"

namespace gv {

/// A session's connections: one a peer, whoever reached whom. When two sessions reach each other at
/// the same moment both connections serve, and new look-ups of both take the same one: that which
/// the session with the smaller id began.
class GVMESSAGING_API Peers : public std::enable_shared_from_this<Peers> {
 public:
  using ConnectionPointer = std::shared_ptr<rpc::Connection>;
  using ClosedHandler = std::function<void(const ConnectionPointer&)>;

  Peers(const rpc::Greeting& own, const wire::Limits& limits) : own_(own), limits_(limits) {}

  /// What the peers may call, and who is told, in the network's thread, of every end of a
  /// connection that had opened. To be set before anything else.
  void setOwner(std::weak_ptr<rpc::ServiceHost> host, ClosedHandler onClosed) {
    host_ = std::move(host);
    onClosed_ = std::move(onClosed);
  }

  /// Accepts peers, those that the environment lets in (see security.h). Throws
  /// std::runtime_error; resolving a name may block.
  std::shared_ptr<rpc::Acceptor> listen(const Url& url);

  /// A connection to whoever answers at a URL, within `bound` for each of its addresses; it fails
  /// with a text that names address and cause. The connections that are made for services later
  /// ask of their peers what was asked of this one.
  Future<ConnectionPointer> dial(const Url& url, std::chrono::milliseconds bound);

  /// The connection to the session that offers a service: the open one, or a new one over that of
  /// its endpoints where this session answers first. Nobody else's answer counts, and an endpoint
  /// that was announced is tried for this only.
  Future<ConnectionPointer> reach(const ServiceInfo& info);

  /// The open connections, the oldest first.
  std::vector<ConnectionPointer> open() const;

  /// Ends all connections, also those to come, and fails what is being reached. Settles when the
  /// open ones have ended.
  Future<void> close(const std::string& cause);

 private:
  rpc::Connection::Events makeEvents(const std::string& expectedSession, Dialing::Opened opened,
                                     Dialing::Failed failed);
  std::shared_ptr<Dialing> makeDialing(std::vector<Url> urls, std::chrono::milliseconds bound,
                                       const std::string& expectedSession);
  Future<ConnectionPointer> begin(const std::shared_ptr<Dialing>& dialing);
  /// What is asked of those that are connected to.
  struct Demands {
    std::string protocol;
    std::shared_ptr<const rpc::KeyRing> keys;
    std::shared_ptr<const net::TlsContext> tls;
  };
  ConnectionPointer shakeHands(std::shared_ptr<net::Stream> stream, const Url& asked,
                               rpc::Connection::Events events,
                               std::chrono::milliseconds bound) const;
  bool isKnown(const ConnectionPointer& connection, const ServiceInfo& info) const;
  ConnectionPointer knownLocked(const ServiceInfo& info) const;
  bool adopt(const ConnectionPointer& connection);
  void forget(const ConnectionPointer& connection);
  std::vector<Url> endpointsToTryLocked(const ServiceInfo& info) const;

  const rpc::Greeting own_;
  const wire::Limits limits_;
  std::weak_ptr<rpc::ServiceHost> host_;
  ClosedHandler onClosed_;

  mutable std::mutex mutex_;  // guards what follows
  bool isClosed_ = false;
  Demands demands_;                                  // from the first listening or dialing on
  std::map<std::uint64_t, ConnectionPointer> open_;  // all of them, by their id
  std::multimap<std::string, ConnectionPointer> bySession_;    // the same, by the peer's session
  std::map<std::string, Future<ConnectionPointer>> reaching_;  // under way, by session
  std::vector<std::weak_ptr<Dialing>> dialings_;               // all under way
  std::vector<Promise<void>> awaitingEnd_;
};

}  // namespace gv
