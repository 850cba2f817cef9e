#include "src/rpc/remoteobject.h"

#include <stdexcept>

#include <boost/make_shared.hpp>

#include <gvtype/metaobjectdescription.h>

namespace gv::rpc {
namespace {

std::string noProperty(unsigned id) {
  return "the object has no property with id " + std::to_string(id);
}

/// How every object is asked for its description, known before the description is.
MetaMethod metaObjectMethod() {
  MetaMethodBuilder builder;
  builder.setUid(static_cast<unsigned>(BuiltinMethod::MetaObject));
  builder.setName("metaObject");
  std::string signature;
  appendSignature(signature, getType<MetaObjectDescription>());
  builder.setReturnSignature(signature);
  return builder.metaMethod();
}

}  // namespace

Future<Object<Empty>> RemoteObject::make(const std::shared_ptr<Connection>& connection,
                                         unsigned service) {
  static const MetaMethod& describe = *new MetaMethod(metaObjectMethod());
  return connection->call(service, describe, {}, MetaCallType::Auto)
      .then(
          [connection, service](Future<AnyReference> settled) {
            const auto description = settled.value().to<MetaObjectDescription>();
            const auto object = boost::make_shared<RemoteObject>(connection, service);
            object->setMetaObject(makeMetaObject(description));
            return Object<Empty>(Object<RemoteObject>(object));
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
  return connection_->call(service_, *method, arguments, callType);
}

void RemoteObject::metaPost(Object<Empty>, unsigned id,
                            const GenericFunctionParameters& arguments) {
  connection_->post(service_, methodOrThrow(id), arguments);
}

Future<SignalLink> RemoteObject::metaConnect(Object<Empty>, unsigned, AnyFunction, MetaCallType) {
  return makeFailedFuture<SignalLink>(
      "signals of objects in other processes do not cross connections");
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
