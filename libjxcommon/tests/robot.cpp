// A process of its own for the tests: publishes what the tests call until it is killed.

#include <iostream>

#include <jxcommon/jxbroker.h>

#include "echoes.h"
#include "testmodule.h"

int main() {
  const auto broker = JX::JXBroker::createBroker("robot", "127.0.0.1", 0, "", 0);
  JX::createModule<JX::TestModule>(broker, "Callee");
  JX::createModule<JX::TestModule>(broker, "Control");
  JX::createModule<JX::Echoes>(broker, "Echoes");
  std::cout << "listening on " << broker->getPort() << std::endl;
  const gv::Promise<void> never;
  never.future().wait();
}
