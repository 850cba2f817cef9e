#include "src/rpc/remoteobject.h"

#include <stdexcept>

#include <boost/make_shared.hpp>

#include <gvtype/metaobjectdescription.h>

namespace gv::rpc {
namespace {

/// A remote object together with the view that handles share.
struct OwnedRemote {
  OwnedRemote(std::shared_ptr<Connection> connection, unsigned service)
      : object(std::move(connection), service) {}
  RemoteObject object;
  GenericObject generic{getDynamicTypeInterface(), static_cast<DynamicObject*>(&object)};
};

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
            auto owned = boost::make_shared<OwnedRemote>(connection, service);
            owned->object.setManageable(&owned->generic);
            owned->object.setMetaObject(makeMetaObject(description));
            return Object<Empty>(boost::shared_ptr<GenericObject>(owned, &owned->generic));
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

}  // namespace gv::rpc
