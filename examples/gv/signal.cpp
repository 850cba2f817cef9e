// Signals: the robot's legs tell of each step, and the client hears of them as long as it wants to.

#include <gv/future.h>
#include <gvtype/dynamicobjectbuilder.h>

#include "sides.h"

namespace {

void offer(gv::Session& session) {
  gv::DynamicObjectBuilder builder;
  builder.advertiseSignal<int, double>("stepped");
  // Weak: the method is part of the object, and would keep it alive for ever.
  const gv::WeakObject<gv::Empty> weak = builder.object();
  builder.advertiseMethod("walk", [weak](int steps) {
    for (int step = 1; step <= steps; ++step) weak.lock().emit("stepped", step, 0.25 * step);
  });
  session.registerService("Legs", builder.object()).value();
}

void listen(gv::Session& session) {
  const gv::Object<gv::Empty> legs = session.service("Legs").value();

  // Runs on the event loop, one emission after the other.
  const gv::Promise<void> arrived;
  const auto onStep = [arrived](int step, double metres) {
    std::cout << "step " << step << ", " << metres << " m\n";
    if (step == 3) arrived.setValue();
  };
  const gv::SignalLink link = legs.connect("stepped", onStep).value();
  legs.call<void>("walk", 3);
  arrived.future().value();

  legs.disconnect(link).value();
  legs.call<void>("walk", 2);
  std::cout << "walked on unheard\n";
}

}  // namespace

int main(int count, char** arguments) {
  return example::play(count, arguments, offer, listen);
}
