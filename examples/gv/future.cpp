// Futures: the robot's kitchen answers when a dish is ready, and the client does not stand waiting.

#include <chrono>
#include <stdexcept>
#include <vector>

#include <gv/eventloop.h>
#include <gv/when.h>
#include <gvtype/dynamicobjectbuilder.h>

#include "sides.h"

namespace {

using Dish = gv::Future<std::string>;

void offer(gv::Session& session) {
  gv::DynamicObjectBuilder builder;
  // A method that returns a future has ended at once; its caller gets what the future ends with.
  builder.advertiseMethod("cook", [](const std::string& dish, int milliseconds) {
    const auto serve = [dish] {
      if (dish == "toast") throw std::runtime_error("the toast is burnt");
      return "hot " + dish;
    };
    return gv::getEventLoop()->async(serve, std::chrono::milliseconds(milliseconds));
  });
  session.registerService("Kitchen", builder.object()).value();
}

void use(gv::Session& session) {
  const gv::Object<gv::Empty> kitchen = session.service("Kitchen").value();
  const auto order = [&kitchen](const std::string& dish, int milliseconds) {
    return kitchen.async<std::string>("cook", dish, milliseconds);
  };

  const Dish soup = order("soup", 30);
  const Dish tea = order("tea", 10);
  const Dish salted = soup.then([](const Dish& ready) { return ready.value() + " with salt"; });
  for (const Dish& ready : gv::whenAll(std::vector{salted, tea}).value())
    std::cout << ready.value() << '\n';

  std::cout << "error: " << order("toast", 10).error() << '\n';

  const Dish stew = order("stew", 3'600'000);
  if (stew.wait(20) == gv::FutureState::Running) std::cout << "the stew takes too long\n";
}

}  // namespace

int main(int count, char** arguments) {
  return example::play(count, arguments, offer, use);
}
