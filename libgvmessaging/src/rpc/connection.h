#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <gvtype/object.h>

#include "src/net/stream.h"
#include "src/net/timer.h"
#include "src/rpc/callserver.h"
#include "src/rpc/discarded.h"
#include "src/rpc/eventtargets.h"
#include "src/rpc/handshake.h"
#include "src/rpc/objectexchange.h"
#include "src/rpc/pendingcalls.h"
#include "src/wire/framereader.h"
#include "src/wire/message.h"

namespace gv::rpc {

/// A conversation with one peer, shared by all calls in both directions.
///
///     Handshaking ──Hello/Welcome──> Open ──> Closed
///          └──────close, peer, bad frame, time-out──────^
///
/// Only the handshake is read before Open. The state ends in Closed once, with a cause that every
/// later call gets; all calls then pending fail at once. Calls run in the thread that read them,
/// which may be replaced meanwhile (see net::Readers); queued ones, and those that were read by a
/// caller which waits for its own reply, on the event loop.
class GVMESSAGING_API Connection : public net::StreamHandler,
                                   public detail::WaitAid,
                                   public std::enable_shared_from_this<Connection> {
 public:
  /// What the owner wants to know: `opened` once when the handshake is done, told by the thread
  /// that reads; `closed` exactly once, last, also when it never opened, in the network's thread.
  struct Events {
    std::function<void(const std::shared_ptr<Connection>&)> opened;
    std::function<void(const std::shared_ptr<Connection>&, const std::string& cause)> closed;
  };

  /// Takes over a stream that was not started, and begins the handshake.
  static std::shared_ptr<Connection> start(std::shared_ptr<net::Stream> stream, Role role,
                                           const Identity& own, std::weak_ptr<ServiceHost> host,
                                           Events events, const wire::Limits& limits);

  /// Calls a method of an object of the peer's, described by `method`. The future has its result,
  /// or fails: NotSent when the arguments do not convert or the connection had ended,
  /// ConnectionLost when it ended before the reply, UserError with the other side's text.
  /// Who waits for the future reads the connection meanwhile, where that is worth it.
  Future<AnyReference> call(const ObjectAddress& object, const MetaMethod& method,
                            const GenericFunctionParameters& arguments, MetaCallType callType);
  /// The same, its end given to `sink`: in the thread that reads, or ends, the connection, or in
  /// this one. Where a caller reads that waits for something else, a reader runs what is foreign.
  void call(const ObjectAddress& object, const MetaMethod& method,
            const GenericFunctionParameters& arguments, MetaCallType callType,
            std::unique_ptr<ResultSink> sink);
  /// Sends a call that has no reply. Throws std::runtime_error when it could not be sent.
  void post(const ObjectAddress& object, const MetaMethod& method,
            const GenericFunctionParameters& arguments);

  /// What the peer is served.
  CallServer& server() { return server_; }
  /// The objects that cross this connection, and where events of the peer's objects go.
  ObjectExchange& objects() { return objects_; }
  EventTargets& eventTargets() { return eventTargets_; }

  /// Counted by its parts.
  Discarded& discarded() { return discarded_; }
  /// Of an open one; the numbers of calls, which listCalls tells, left out. Any thread.
  ConnectionFigures figures() const;
  /// Adds the calls under way, of both sides. Any thread.
  void listCalls(std::vector<CallRecord>& calls) const;
  /// What a call is of: one of this process's objects, or one that the peer lent. Invalid where it
  /// has gone, and for the peer's services.
  Object<Empty> objectOf(const CallRecord& call) const;

  /// Ends the connection; pending calls fail with `cause` before this returns. What was sent before
  /// still leaves, within a second. Any thread; idempotent.
  void close(const std::string& cause);
  /// The same, but what was sent may be lost, and the socket is free at once.
  void abort(const std::string& cause);

  bool isOpen() const;
  Role role() const { return role_; }
  /// Unique in this process, never 0.
  std::uint64_t id() const { return id_; }
  /// The other side, for texts: "tcp://ip:port" or "tcps://ip:port".
  const std::string& peerName() const { return stream_->peerName(); }
  /// Its numeric address.
  const std::string& peerAddress() const { return stream_->peerAddress(); }
  /// What the peer said of itself. Constant once the connection has opened; not to be called
  /// before.
  const Greeting& peer() const { return peer_; }

 private:
  enum class State { Handshaking, Open, Closed };

  Connection(std::shared_ptr<net::Stream> stream, Role role, const Identity& own,
             std::weak_ptr<ServiceHost> host, Events events, const wire::Limits& limits);

  std::span<char> inputSpace() override { return reader_.space(); }
  void onInput(std::size_t count) override;
  void onClosed(const std::string& cause) override;

  void help(const detail::FutureState& awaited) noexcept override;

  void onFrame(wire::Frame& frame);
  Standing standing() const;
  void onHandshakeFrame(const wire::Frame& frame);
  void becomeOpen();
  void onReply(const wire::Frame& frame);
  void onEvent(const wire::Frame& frame);

  wire::FrameHeader makeHeader(const ObjectAddress& object, const MetaMethod& method,
                               MetaCallType callType) const;
  void encodeArguments(wire::Message& message, const MetaMethod& method,
                       const GenericFunctionParameters& arguments) const;
  void send(const HandshakeFrame& frame);
  std::optional<PendingCall> takePending(std::uint64_t messageId);
  bool hasEnded() const;
  void fail(const std::string& cause);
  void lose(const std::string& cause);

  // Constant after construction
  const std::uint64_t id_;
  const std::shared_ptr<net::Stream> stream_;
  const Role role_;
  const wire::Limits limits_;
  const std::int64_t begin_ = coarseMilliseconds();

  // Safe by themselves
  Discarded discarded_;
  ObjectExchange objects_;
  EventTargets eventTargets_;
  CallServer server_;

  // Of the thread that reads, or ends it
  Events events_;  // dropped when the connection has ended
  wire::FrameReader reader_;
  std::unique_ptr<Handshake> handshake_;  // null from Open on
  std::shared_ptr<net::Timer> handshakeTimer_;
  Greeting peer_;  // constant, and free for all, from Open on

  mutable std::mutex mutex_;  // guards what follows
  State state_ = State::Handshaking;
  std::string cause_;  // why it is Closed
  PendingCalls pending_;
};

}  // namespace gv::rpc
