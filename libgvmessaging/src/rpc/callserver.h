#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gvmessaging/figures.h>
#include <gvtype/object.h>

#include "src/net/stream.h"
#include "src/rpc/callbudget.h"
#include "src/rpc/objectexchange.h"
#include "src/rpc/pacedcalls.h"
#include "src/rpc/signalrelay.h"
#include "src/wire/frame.h"
#include "src/wire/limits.h"

namespace gv::rpc {

/// The objects that a connection's peer may call.
class ServiceHost {
 public:
  virtual ~ServiceHost() = default;
  /// The object of a service, invalid where there is none. Any thread; must not block.
  virtual Object<Empty> findService(unsigned id) const = 0;
  /// Of the session that this is; none of it runs user code. Any thread; must not block.
  virtual Figures figures() const = 0;
};

struct AcceptedCall;
struct CallTarget;
class OfThisPeer;
struct HeldCall;

/// Serves one peer: its calls, and the signals that it subscribed to. Part of the connection.
///
/// Calls run in the thread that read them, which may be replaced meanwhile (see net::Readers);
/// queued ones on the event loop, held back while the peer does not read. Those that were read by a
/// caller which waits for its own reply, and those for which there is no room, run in the leading
/// reader or on the event loop, whichever can first.
class CallServer {
 public:
  CallServer(Connection& connection, net::Stream& stream, ObjectExchange& objects,
             std::weak_ptr<ServiceHost> host, const wire::Limits& limits);

  /// A Call or a Post, in the thread that reads.
  void onCall(wire::Frame& frame);
  /// Tells the peer of an emission. Never waits for it: a peer that leaves more than
  /// Limits::outputSlow of the events before, or takes nothing for Limits::outputPatience, loses
  /// the connection.
  /// Throws where the values cannot be sent. Any thread.
  void sendEvent(const ObjectAddress& object, const MetaSignal& signal, std::uint64_t subscription,
                 const std::vector<AnyValue>& values);
  /// The connection has ended: so do the subscriptions, and the calls that wait for the peer to
  /// read. Any thread.
  void end() {
    relay_->end();
    paced_->end();
  }

  /// What waits here for the peer's sake.
  const std::shared_ptr<CallBudget>& budget() const { return budget_; }
  /// Signals that the peer listens to.
  std::size_t subscriptions() const { return relay_->size(); }

 private:
  friend class OfThisPeer;
  struct WaitingCall;
  using OptionalEntry = std::optional<ServedCalls::Entry>;

  void serve(const wire::Frame& frame, MetaCallType callType);
  void serveElsewhere(wire::Frame& frame, MetaCallType callType);
  void serveAccepted(const AcceptedCall& call);
  void checkBudget(const wire::Frame& frame);
  std::shared_ptr<const void> holdLeftRunning(const wire::FrameHeader& header) const;
  AnyReference figures() const;
  CallTarget findTarget(const wire::Frame& frame);
  GenericFunctionParameters readArguments(const wire::Frame& frame, const CallTarget& target);
  void callMethod(const wire::FrameHeader& header, const CallTarget& target,
                  const GenericFunctionParameters& arguments, MetaCallType callType,
                  OptionalEntry& entry);
  bool callNow(const wire::FrameHeader& header, const CallTarget& target,
               const GenericFunctionParameters& arguments);
  std::shared_ptr<HeldCall> hold(const wire::FrameHeader& header, OptionalEntry& entry) const;
  Future<AnyReference> startMethod(const wire::FrameHeader& header, const CallTarget& target,
                                   const GenericFunctionParameters& arguments,
                                   MetaCallType callType);
  void replyWhenSettled(const wire::FrameHeader& call, const std::string& returnSignature,
                        const Future<AnyReference>& result, OptionalEntry& entry);
  void reply(const wire::FrameHeader& call, const std::string& returnSignature,
             const AnyReference& result);
  void checkRoom(const char* otherwise) const;
  std::string exceededOutput();
  void replyError(const wire::FrameHeader& call, const std::string& text);

  // The connection and its parts
  Connection& connection_;
  net::Stream& stream_;
  ObjectExchange& objects_;
  const wire::Limits& limits_;

  const std::weak_ptr<ServiceHost> host_;
  const std::shared_ptr<CallBudget> budget_ = std::make_shared<CallBudget>();
  const std::shared_ptr<CallBudget> leftRunning_ = std::make_shared<CallBudget>();  // by calls
  const std::shared_ptr<SignalRelay> relay_;
  const std::shared_ptr<PacedCalls> paced_;
  std::atomic<std::size_t> pendingEvents_{0};  // bytes of events that wait in the stream, at most
};

}  // namespace gv::rpc
