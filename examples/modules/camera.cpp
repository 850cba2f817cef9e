// What docs/modules.md shows, run: a camera, and a client that uses it.

#include "camera.h"

#include <iostream>

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>

int main() {
  auto broker = JX::JXBroker::createBroker("robot", "127.0.0.1", 0, "", 0);
  auto camera = JX::createModule<Camera>(broker, "Camera");

  JX::JXProxy proxy(broker, "Camera");
  std::cout << "picture " << proxy.call<int>("take", 640) << '\n';
  try {
    proxy.call<int>("take", 0);
  } catch (const JX::JXError& error) {
    std::cout << error.what() << '\n';
  }

  const int task = proxy.pCall("film");
  const bool runsStill = proxy.wait(task, 100);
  proxy.stop(task);
  proxy.wait(task, 0);
  std::cout << (runsStill ? "filmed until it was stopped" : "ended by itself") << '\n';

  std::cout << proxy.call<std::string>("develop", 1) << '\n';
  const int later = proxy.pCall("develop", 2);
  proxy.wait(later, 0);

  std::cout << proxy.genericCall("getMethodHelp", std::vector<JX::JXValue>{"take"}).toJson()
            << '\n';

  camera->exit();
  broker->shutdown();
}
