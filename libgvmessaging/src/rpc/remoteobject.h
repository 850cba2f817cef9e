#pragma once

#include <memory>

#include <gvtype/dynamicobject.h>

#include "src/rpc/connection.h"

namespace gv::rpc {

/// An object that lives with a connection's peer: calls of it cross the connection.
class GVMESSAGING_API RemoteObject final : public DynamicObject {
 public:
  RemoteObject(std::shared_ptr<Connection> connection, unsigned service)
      : connection_(std::move(connection)), service_(service) {}

  /// Asks the peer for the description of a service, and makes the object that stands for it. Never
  /// blocks; fails as a call does.
  static Future<Object<Empty>> make(const std::shared_ptr<Connection>& connection,
                                    unsigned service);

  Future<AnyReference> metaCall(Object<Empty> context, unsigned id,
                                const GenericFunctionParameters& arguments, MetaCallType callType,
                                Signature returnSignature) override;
  /// Throws std::runtime_error for an unknown method and when it could not be sent.
  void metaPost(Object<Empty> context, unsigned id,
                const GenericFunctionParameters& arguments) override;
  /// Fails: signals do not cross connections.
  Future<SignalLink> metaConnect(Object<Empty> context, unsigned id, AnyFunction handler,
                                 MetaCallType callType) override;
  Future<AnyReference> metaProperty(Object<Empty> context, unsigned id) override;
  Future<void> metaSetProperty(Object<Empty> context, unsigned id,
                               const AnyReference& value) override;

 private:
  const MetaMethod& methodOrThrow(unsigned id) const;

  const std::shared_ptr<Connection> connection_;
  const unsigned service_;
};

}  // namespace gv::rpc
