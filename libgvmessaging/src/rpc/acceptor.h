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
#include "src/rpc/connection.h"

namespace gv::rpc {

/// A listening port whose newcomers become connections, in the order and number that Admission
/// allows.
class GVMESSAGING_API Acceptor : public std::enable_shared_from_this<Acceptor> {
 public:
  /// Listens; throws std::runtime_error as net::Listener does. The events are those of every
  /// connection that is accepted.
  static std::shared_ptr<Acceptor> listen(const std::string& host, std::uint16_t port,
                                          const Greeting& own, std::weak_ptr<ServiceHost> services,
                                          Connection::Events events, const wire::Limits& limits);

  std::uint16_t boundPort() const { return listener_->boundPort(); }
  const std::string& boundAddress() const { return listener_->boundAddress(); }

  /// Stops listening and ends what is still in its handshake; open connections stay. Any thread.
  void close();

 private:
  using Id = net::Admission::Id;

  Acceptor(const Greeting& own, std::weak_ptr<ServiceHost> host, Connection::Events events,
           const wire::Limits& limits);

  void onAccepted(std::shared_ptr<net::Stream> stream);
  bool onFinished(Id id);
  bool makeRoom();
  void onTime();
  void carryOutLocked(const net::Admission::Decision& decision,
                      std::vector<std::function<void()>>& later);
  void begin(Id id, const std::shared_ptr<net::Stream>& stream);
  void lookAgainLocked();

  // Constant after construction
  const Greeting own_;
  const std::weak_ptr<ServiceHost> host_;
  const Connection::Events events_;
  const wire::Limits limits_;
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
