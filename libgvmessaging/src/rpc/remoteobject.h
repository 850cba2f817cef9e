#pragma once

#include <memory>

#include <gvtype/dynamicobject.h>

#include "src/rpc/connection.h"
#include "src/rpc/remotesignals.h"

namespace gv::rpc {

/// An object that lives with a connection's peer: calls of it cross the connection. One that was
/// lent is given back when its last handle goes.
class GVMESSAGING_API RemoteObject final : public DynamicObject {
 public:
  RemoteObject(std::shared_ptr<Connection> connection, const ObjectAddress& address);
  ~RemoteObject() override;

  static Object<Empty> make(const std::shared_ptr<Connection>& connection,
                            const ObjectAddress& address, const MetaObject& description);
  /// Asks the peer for the description of a service, and makes the object that stands for it. Never
  /// blocks; fails as a call does.
  static Future<Object<Empty>> make(const std::shared_ptr<Connection>& connection,
                                    unsigned service);

  Future<AnyReference> metaCall(Object<Empty> context, unsigned id,
                                const GenericFunctionParameters& arguments, MetaCallType callType,
                                Signature returnSignature) override;
  bool callElsewhere(unsigned id, const GenericFunctionParameters& arguments,
                     std::unique_ptr<ResultSink>& sink) override;
  /// Throws std::runtime_error for an unknown method and when it could not be sent.
  void metaPost(Object<Empty> context, unsigned id,
                const GenericFunctionParameters& arguments) override;
  /// The handler runs on the event loop: those of all signals of the object one after the other,
  /// or, Queued, in a row of its own.
  Future<SignalLink> metaConnect(Object<Empty> context, unsigned id, AnyFunction handler,
                                 MetaCallType callType) override;
  Future<void> metaDisconnect(Object<Empty> context, SignalLink link) override;
  Future<AnyReference> metaProperty(Object<Empty> context, unsigned id) override;
  Future<void> metaSetProperty(Object<Empty> context, unsigned id,
                               const AnyReference& value) override;

  const Connection& connection() const { return *connection_; }
  const ObjectAddress& address() const { return address_; }

 private:
  const MetaMethod& methodOrThrow(unsigned id) const;

  const std::shared_ptr<Connection> connection_;
  const ObjectAddress address_;
  const std::shared_ptr<RemoteSignals> signals_;
};

}  // namespace gv::rpc
