// A master for benchmarks: bench_broker <modules>. Publishes so many modules, "Module0" and on,
// writes its port and serves until its module "Bench" is told to end.

#include <sys/prctl.h>

#include <csignal>
#include <iostream>
#include <string>

#include <jxcommon/jxbroker.h>

#include "benchmodule.h"

int main(int argumentCount, char** arguments) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (argumentCount != 2) return 2;
  const auto broker = JX::JXBroker::createBroker("master", "127.0.0.1", 0, "", 0);
  const auto bench = JX::createModule<bench::BenchModule>(broker, "Bench");
  for (int i = 0; i < std::stoi(arguments[1]); ++i)
    JX::createModule<JX::JXModule>(broker, "Module" + std::to_string(i));
  std::cout << broker->getPort() << std::endl;
  bench->waitForTheEnd();
  broker->shutdown();
}
