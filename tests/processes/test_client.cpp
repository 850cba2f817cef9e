// A client for tests: publishes a module under its name at the robot on the given port. Then it
// waits in the robot's method "hold" with that name as the key, to be killed; or, with "leave" as a
// third argument, returns from main with everything alive, its broker in a static object.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <iostream>
#include <string>

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>

namespace {

class Victim : public JX::JXModule {
 public:
  Victim(boost::shared_ptr<JX::JXBroker> broker, const std::string& name)
      : JX::JXModule(broker, name) {
    functionName("twice", getName(), "Never returns.");
    bindMethod(JX::makeFunctor(this, &Victim::twice));
  }

  int twice(int) {
    std::cout << "stuck" << std::endl;
    for (;;) ::pause();
  }
};

/// Made before the broker's threads are, so destroyed after they have been stopped.
struct LastOwner {
  boost::shared_ptr<JX::JXBroker> broker;
  ~LastOwner() {
    if (broker) broker->shutdown();
  }
} lastOwner;

}  // namespace

int main(int argumentCount, char** arguments) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves no client behind
  if (argumentCount != 3 && argumentCount != 4) return 2;
  const std::string name = arguments[2];
  try {
    const auto broker =
        JX::JXBroker::createBroker(name, "127.0.0.1", 0, "127.0.0.1", std::stoi(arguments[1]));
    JX::createModule<Victim>(broker, name);
    if (argumentCount == 4) {
      lastOwner.broker = broker;
      return 0;
    }
    JX::JXProxy(broker, "Robot").call<void>("hold", name);
  } catch (const JX::JXError& error) {
    std::cerr << error.description() << '\n';
  }
  return 1;
}
