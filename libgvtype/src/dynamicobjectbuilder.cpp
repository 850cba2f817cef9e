#include <gvtype/dynamicobjectbuilder.h>

#include <stdexcept>

#include <boost/make_shared.hpp>

namespace gv {

DynamicObjectBuilder::DynamicObjectBuilder()
    : own_(boost::make_shared<DynamicObject>()), object_(own_.get()) {
  object_->setPlain();
}

DynamicObjectBuilder::DynamicObjectBuilder(DynamicObject* object) : object_(object) {}

unsigned DynamicObjectBuilder::xAdvertiseMethod(const MetaMethodBuilder& method,
                                                AnyFunction function, MetaCallType callType) {
  return object_->addMethod(method, std::move(function), callType);
}

unsigned DynamicObjectBuilder::advertise(MetaMethodBuilder& method, const AnyFunction& function,
                                         MetaCallType callType) {
  const AnyFunction body = function.withInstance();
  method.setReturnSignature(body.returnSignature());
  method.setParametersSignature(body.parametersSignature(true));
  return xAdvertiseMethod(method, body, callType);
}

void DynamicObjectBuilder::setDescription(const std::string& text) {
  object_->setDescription(text);
}

void DynamicObjectBuilder::setThreadingModel(ObjectThreadingModel model) {
  object_->setThreadingModel(model);
}

Object<Empty> DynamicObjectBuilder::object() const {
  if (!own_) throw std::logic_error("the object was given to the builder: its owner has handles");
  return gv::Object<DynamicObject>(own_);
}

}  // namespace gv
