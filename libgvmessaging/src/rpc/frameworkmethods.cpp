#include "src/rpc/frameworkmethods.h"

#include <gvtype/dynamicobject.h>
#include <gvtype/metaobjectdescription.h>

namespace gv::rpc {
namespace {

MetaMethod makeMethod(unsigned id, const char* name, const char* parameters,
                      const std::string& result) {
  MetaMethodBuilder builder;
  builder.setUid(id);
  builder.setName(name);
  builder.setParametersSignature(Signature(parameters));
  builder.setReturnSignature(result);
  return builder.metaMethod();
}

std::string descriptionSignature() {
  std::string signature;
  appendSignature(signature, getType<MetaObjectDescription>());
  return signature;
}

}  // namespace

// Never destroyed: objects may be used in static destruction.

const MetaMethod& metaObjectMethod() {
  static const MetaMethod& method =
      *new MetaMethod(makeMethod(static_cast<unsigned>(BuiltinMethod::MetaObject), "metaObject",
                                 "()", descriptionSignature()));
  return method;
}

const MetaMethod& figuresMethod() {
  static const MetaMethod& method = *new MetaMethod(
      makeMethod(static_cast<unsigned>(BuiltinMethod::Figures), "figures", "()", "v"));
  return method;
}

const MetaMethod& subscribeMethod() {
  static const MetaMethod& method =
      *new MetaMethod(makeMethod(subscribeId, "subscribe", "(ut)", "V"));
  return method;
}

const MetaMethod& unsubscribeMethod() {
  static const MetaMethod& method =
      *new MetaMethod(makeMethod(unsubscribeId, "unsubscribe", "(t)", "V"));
  return method;
}

const MetaMethod& releaseMethod() {
  static const MetaMethod& method = *new MetaMethod(makeMethod(releaseId, "release", "(u)", "V"));
  return method;
}

}  // namespace gv::rpc
