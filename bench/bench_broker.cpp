// A master for benchmarks: bench_broker <modules>. Publishes so many modules, "Module0" and on,
// writes its port and serves until its module "Ender" is told to end.

#include <sys/prctl.h>

#include <csignal>
#include <iostream>
#include <string>

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxmodule.h>

namespace {

class Ender : public JX::JXModule {
 public:
  Ender(boost::shared_ptr<JX::JXBroker> broker, const std::string& name)
      : JX::JXModule(broker, name) {
    functionName("end", getName(), "Ends the process.");
    bindMethod(JX::makeFunctor([this] { ended_.setValue(); }));
  }
  void wait() { ended_.future().wait(); }

 private:
  const gv::Promise<void> ended_;
};

}  // namespace

int main(int argumentCount, char** arguments) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (argumentCount != 2) return 2;
  const auto broker = JX::JXBroker::createBroker("master", "127.0.0.1", 0, "", 0);
  const auto ender = JX::createModule<Ender>(broker, "Ender");
  for (int i = 0; i < std::stoi(arguments[1]); ++i)
    JX::createModule<JX::JXModule>(broker, "Module" + std::to_string(i));
  std::cout << broker->getPort() << std::endl;
  ender->wait();
  broker->shutdown();
}
