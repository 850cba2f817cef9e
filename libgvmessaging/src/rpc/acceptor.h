#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "src/net/admission.h"
#include "src/net/listener.h"
#include "src/net/timer.h"
#include "src/net/tlscontext.h"
#include "src/rpc/connection.h"

namespace gv::rpc {

/// Who is let in by a listening port.
struct Door {
  bool isLinkOnly = true;                      ///< Peers from beyond a router are refused.
  std::shared_ptr<const net::TlsContext> tls;  ///< Null: without TLS.
};

/// A listening port whose newcomers become connections, in the order and number that Admission
/// allows. Who may not come in at all is closed before a byte is read.
class GVMESSAGING_API Acceptor : public std::enable_shared_from_this<Acceptor> {
 public:
  /// Listens; throws std::runtime_error as net::Listener does. The events are those of every
  /// connection that is accepted.
  static std::shared_ptr<Acceptor> listen(const std::string& host, std::uint16_t port,
                                          const Identity& own, std::weak_ptr<ServiceHost> services,
                                          Connection::Events events, const wire::Limits& limits,
                                          const Door& door);

  std::uint16_t boundPort() const { return listener_->boundPort(); }
  const std::string& boundAddress() const { return listener_->boundAddress(); }
  /// "tcp", or "tcps" where the door has TLS.
  std::string protocol() const { return door_.tls ? "tcps" : "tcp"; }

  /// Stops listening and ends what is still in its handshake; open connections stay. Any thread.
  void close();

 private:
  using Id = net::Admission::Id;

  Acceptor(const Identity& own, std::weak_ptr<ServiceHost> host, Connection::Events events,
           const wire::Limits& limits, const Door& door);

  bool mayComeIn(const net::Stream& stream) const;
  void onAccepted(std::shared_ptr<net::Stream> stream);
  bool onFinished(Id id);
  bool makeRoom();
  void onTime();
  void carryOutLocked(const net::Admission::Decision& decision,
                      std::vector<std::function<void()>>& later);
  void begin(Id id, const std::shared_ptr<net::Stream>& stream);
  void lookAgainLocked();

  // Constant after construction
  const Identity own_;
  const std::weak_ptr<ServiceHost> host_;
  const Connection::Events events_;
  const wire::Limits limits_;
  const Door door_;
  std::shared_ptr<net::Listener> listener_;  // set by listen()

  std::mutex mutex_;  // guards what follows
  net::Admission admission_;
  Id lastId_ = 0;
  std::map<Id, std::shared_ptr<net::Stream>> parked_;  // accepted, unread
  std::map<Id, std::weak_ptr<Connection>> handshaking_;
  std::shared_ptr<net::Timer> look_;
  std::optional<net::Admission::Time> lookAt_;  // when it ends
  bool isClosed_ = false;
};

}  // namespace gv::rpc
