// Properties: a value that others read, set, and hear of when it changes.

#include <gv/future.h>
#include <gvtype/dynamicobjectbuilder.h>

#include "sides.h"

namespace {

void offer(gv::Session& session) {
  gv::DynamicObjectBuilder builder;
  builder.advertiseProperty<double>("angle", 0);
  const gv::Object<gv::Empty> head = builder.object();
  // The property's signal; in the object's own process it comes before the setting has ended.
  head.connect("angle",
               [](double angle) { std::cout << "turning the head to " << angle << std::endl; })
      .value();
  session.registerService("Head", head).value();
}

void use(gv::Session& session) {
  const gv::Object<gv::Empty> head = session.service("Head").value();
  std::cout << "the angle is " << head.property<double>("angle").value() << '\n';

  const gv::Promise<double> changed;
  head.connect("angle", [changed](double angle) { changed.setValue(angle); }).value();
  head.setProperty("angle", 30).value();  // an int converts to the property's type
  std::cout << "told that it is " << changed.future().value() << '\n';
  std::cout << "the angle is " << head.property<double>("angle").value() << '\n';

  const gv::Future<void> failed = head.setProperty("angle", std::string("left"));
  std::cout << "error: " << failed.error() << '\n';
}

}  // namespace

int main(int count, char** arguments) {
  return example::play(count, arguments, offer, use);
}
