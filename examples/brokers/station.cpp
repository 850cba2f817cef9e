// What docs/brokers.md shows, run: "station" is a master, "station <port>" a child of the one that
// listens there. Either serves until SIGINT or SIGTERM, the child also until its master has gone.

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxbrokermanager.h>
#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>
#include <boost/make_shared.hpp>

namespace {

void serveAsMaster(const sigset_t& endSignals) {
  auto master = JX::JXBroker::createBroker("robot", "127.0.0.1", 0, "", 0);
  JX::createModule<JX::JXModule>(master, "Base");
  std::cout << "listening on " << master->getPort() << std::endl;

  int signal = 0;
  sigwait(&endSignals, &signal);
}

void listModules(JX::JXBroker& broker) {
  auto modules = boost::make_shared<std::vector<JX::JXModuleInfo>>();
  broker.getGlobalModuleList(modules);
  for (const JX::JXModuleInfo& module : *modules) std::cout << "sees " << module.name << '\n';
}

void serveAsChild(int port, const sigset_t& endSignals) {
  auto child = JX::JXBroker::createBroker("arm", "127.0.0.1", 0, "127.0.0.1", port);
  JX::createModule<JX::JXModule>(child, "Arm");
  listModules(*child);
  JX::JXProxy base(child, "Base");
  std::cout << "Base answers: " << base.call<bool>("ping") << std::endl;

  const timespec atMost{0, 100'000'000};
  while (child->isConnected() && sigtimedwait(&endSignals, nullptr, &atMost) < 0) {
  }
  std::cout << (child->isConnected() ? "told to end" : "the master has gone") << '\n';

  JX::JXProxy own(child, "Arm");
  std::cout << "Arm answers: " << own.call<bool>("ping") << '\n';
}

}  // namespace

int main(int argumentCount, char** arguments) {
  sigset_t endSignals;
  sigemptyset(&endSignals);
  sigaddset(&endSignals, SIGINT);
  sigaddset(&endSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);  // before the first broker: threads inherit it

  int status = 0;
  try {
    if (argumentCount > 1)
      serveAsChild(std::atoi(arguments[1]), endSignals);
    else
      serveAsMaster(endSignals);
  } catch (const JX::JXError& error) {
    std::cerr << error.what() << '\n';
    status = 1;
  }
  JX::JXBrokerManager::getInstance()->killAllBroker();
  std::cout << "shut down" << std::endl;
  return status;
}
