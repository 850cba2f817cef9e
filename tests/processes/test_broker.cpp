// A broker for tests: test_broker <name> <port> <parent port>, a master where the parent port is 0.
// Publishes a module of its own name that tells what this process sees, says where it listens, and
// serves until it is told to end.

#include <iostream>
#include <map>
#include <string>

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>
#include <boost/make_shared.hpp>

namespace {

using Processes = std::map<std::string, int>;

class Witness : public JX::JXModule {
 public:
  Witness(boost::shared_ptr<JX::JXBroker> broker, const std::string& name)
      : JX::JXModule(broker, name) {
    offer("modules", &Witness::modules);
    offer("ownModules", &Witness::ownModules);
    offer("isPresent", &Witness::isPresent);
    offer("identity", &Witness::identity);
    offer("pingOwn", &Witness::pingOwn);
    offer("claim", &Witness::claim);
    offer("release", &Witness::release);
    offer("publish", &Witness::publish);
    offer("end", &Witness::end);
    offer("leave", &Witness::leave);
  }

  /// Which module is of which process.
  Processes modules() { return told(&JX::JXBroker::getGlobalModuleList); }
  Processes ownModules() { return told(&JX::JXBroker::getModuleList); }

  bool isPresent(const std::string& name) { return getParentBroker()->isModulePresent(name); }

  std::string identity() {
    const auto broker = getParentBroker();
    return broker->getName() + " of " + broker->getParentIP() + ":" +
           std::to_string(broker->getParentPort()) +
           (broker->isConnected() ? ", connected" : ", alone");
  }

  bool pingOwn() { return JX::JXProxy(getParentBroker(), getName()).call<bool>("ping"); }

  /// Publishes a module under this name. Empty when it has it, else why not.
  std::string claim(const std::string& name) {
    try {
      prize_ = JX::createModule<JX::JXModule>(getParentBroker(), name);
      return "";
    } catch (const JX::JXError& error) {
      return error.what();
    }
  }
  void release() { prize_->exit(); }

  void publish(int modules) {
    for (int i = 0; i < modules; ++i)
      JX::createModule<JX::JXModule>(getParentBroker(), "Module" + std::to_string(i));
  }

  void end() { ended_.setValue(); }
  void waitForEnd() { ended_.future().wait(); }
  /// Ends the process from within a method, with everything alive.
  void leave() { std::exit(0); }

 private:
  template <class Member>
  void offer(const std::string& name, Member member) {
    functionName(name, getName(), "");
    bindMethod(JX::makeFunctor(this, member));
  }

  template <class List>
  Processes told(List list) {
    const auto infos = boost::make_shared<std::vector<JX::JXModuleInfo>>();
    ((*getParentBroker()).*list)(infos);
    Processes processes;
    for (const JX::JXModuleInfo& info : *infos) processes[info.name] = info.processId;
    return processes;
  }

  boost::shared_ptr<JX::JXModule> prize_;  // one caller at a time
  const gv::Promise<void> ended_;
};

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount != 4) return 2;
  const std::string name = arguments[1];
  try {
    const auto broker = JX::JXBroker::createBroker(name, "127.0.0.1", std::stoi(arguments[2]), "",
                                                   std::stoi(arguments[3]));
    const auto witness = JX::createModule<Witness>(broker, name);
    std::cout << "listening on tcp://127.0.0.1:" << broker->getPort() << std::endl;
    witness->waitForEnd();
    return broker->shutdown() ? 0 : 1;
  } catch (const JX::JXError& error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
}
