// Publish an object: the robot offers an arm under a name; the client finds it, and sees what it
// is, without knowing its class.

#include <gvtype/dynamicobjectbuilder.h>

#include "sides.h"

namespace {

/// A class of its own can offer its members; DynamicObjectBuilder().object() does without one.
class Arm : public gv::DynamicObject {
 public:
  Arm() {
    gv::DynamicObjectBuilder builder(this);
    builder.setDescription("An arm with two fingers.");
    gv::MetaMethodBuilder grip;
    grip.setName("grip");
    grip.setDescription("Closes the fingers, and tells how far they are apart then, in mm.");
    grip.appendParameter("force", "In newtons.");
    builder.advertiseMethod(grip, this, &Arm::grip);
    builder.advertiseSignal<double>("touched");
    builder.advertiseProperty<int>("speed", 50);
  }
  int grip(double force) const { return force > 10 ? 0 : 20; }
};

void offer(gv::Session& session) {
  const gv::Object<Arm> arm(boost::make_shared<Arm>());
  session.registerService("Arm", arm).value();  // the session keeps it
}

void look(gv::Session& session) {
  for (const gv::ServiceInfo& service : session.services().value())
    std::cout << "service " << service.name() << '\n';

  const gv::Object<gv::Empty> arm = session.service("Arm").value();
  const gv::MetaObject& description = arm.metaObject();
  std::cout << description.description() << '\n';
  for (const auto& [id, method] : description.methodMap()) {
    if (id < gv::MetaObject::firstOwnId) continue;  // what the framework adds to every object
    std::cout << "method " << method.toString() << ": " << method.description() << '\n';
  }
  for (const auto& [id, signal] : description.signalMap())
    std::cout << "signal " << signal.toString() << '\n';
  for (const auto& [id, property] : description.propertyMap())
    std::cout << "property " << property.toString() << '\n';
}

}  // namespace

int main(int count, char** arguments) {
  return example::play(count, arguments, offer, look);
}
