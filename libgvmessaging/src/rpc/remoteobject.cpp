#include "src/rpc/remoteobject.h"

#include <stdexcept>

#include <boost/make_shared.hpp>

#include <gvtype/metaobjectdescription.h>

#include "src/rpc/frameworkmethods.h"
#include "src/rpc/recentdescriptions.h"
#include "src/rpc/releasedelsewhere.h"

namespace gv::rpc {
namespace {

std::string noProperty(unsigned id) {
  return "the object has no property with id " + std::to_string(id);
}

}  // namespace

RemoteObject::RemoteObject(std::shared_ptr<Connection> connection, const ObjectAddress& address)
    : connection_(std::move(connection)),
      address_(address),
      signals_(releasedElsewhere(std::make_unique<RemoteSignals>(connection_, address))) {}

RemoteObject::~RemoteObject() {
  if (address_.service == 0) connection_->objects().onUnused(address_.object, this);
}

Object<Empty> RemoteObject::make(const std::shared_ptr<Connection>& connection,
                                 const ObjectAddress& address, const MetaObject& description) {
  const auto object = boost::make_shared<RemoteObject>(connection, address);
  object->setMetaObject(description);
  return Object<RemoteObject>(object);
}

Future<Object<Empty>> RemoteObject::make(const std::shared_ptr<Connection>& connection,
                                         unsigned service) {
  return connection->call(service, metaObjectMethod(), {}, MetaCallType::Auto)
      .then(
          [connection, service](Future<AnyReference> settled) {
            return make(connection, service,
                        makeSharedMetaObject(settled.value().to<MetaObjectDescription>()));
          },
          FutureCallbackType::Sync);
}

const MetaMethod& RemoteObject::methodOrThrow(unsigned id) const {
  const MetaMethod* method = metaObject().method(id);
  if (!method) throw std::runtime_error("the object has no method with id " + std::to_string(id));
  return *method;
}

Future<AnyReference> RemoteObject::metaCall(Object<Empty>, unsigned id,
                                            const GenericFunctionParameters& arguments,
                                            MetaCallType callType, Signature) {
  const MetaMethod* method = metaObject().method(id);
  if (!method)
    return makeFailedFuture<AnyReference>("the object has no method with id " + std::to_string(id));
  return connection_->call(address_, *method, arguments, callType);
}

bool RemoteObject::callElsewhere(unsigned id, const GenericFunctionParameters& arguments,
                                 std::unique_ptr<ResultSink>& sink) {
  const MetaMethod* method = metaObject().method(id);
  if (!method)
    sink->fail("the object has no method with id " + std::to_string(id));
  else
    connection_->call(address_, *method, arguments, MetaCallType::Auto, std::move(sink));
  return true;
}

void RemoteObject::metaPost(Object<Empty>, unsigned id,
                            const GenericFunctionParameters& arguments) {
  connection_->post(address_, methodOrThrow(id), arguments);
}

Future<SignalLink> RemoteObject::metaConnect(Object<Empty> context, unsigned id,
                                             AnyFunction handler, MetaCallType callType) {
  const auto& signals = metaObject().signalMap();
  const auto signal = signals.find(id);
  if (signal == signals.end())
    return makeFailedFuture<SignalLink>("the object has no signal with id " + std::to_string(id));
  return signals_->connect(context, signal->second, std::move(handler), callType);
}

Future<void> RemoteObject::metaDisconnect(Object<Empty>, SignalLink link) {
  return signals_->disconnect(link);
}

Future<AnyReference> RemoteObject::metaProperty(Object<Empty> context, unsigned id) {
  const auto& properties = metaObject().propertyMap();
  const auto property = properties.find(id);
  if (property == properties.end()) return makeFailedFuture<AnyReference>(noProperty(id));
  return metaCall(std::move(context), static_cast<unsigned>(BuiltinMethod::Property),
                  makeParameters(property->second.name()), MetaCallType::Auto, {});
}

Future<void> RemoteObject::metaSetProperty(Object<Empty> context, unsigned id,
                                           const AnyReference& value) {
  const auto& properties = metaObject().propertyMap();
  const auto property = properties.find(id);
  if (property == properties.end()) return makeFailedFuture<void>(noProperty(id));
  return metaCall(std::move(context), static_cast<unsigned>(BuiltinMethod::SetProperty),
                  {AnyReference::from(property->second.name()), value}, MetaCallType::Auto, {})
      .then([](const Future<AnyReference>& settled) { settled.value(); }, FutureCallbackType::Sync);
}

}  // namespace gv::rpc
