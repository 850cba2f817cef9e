// A robot that publishes one module, "Greeter", and serves it until it is interrupted.

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxmodule.h>
#include <jxerror/jxerror.h>

#include "arguments.h"

namespace {

class Greeter : public JX::JXModule {
 public:
  Greeter(boost::shared_ptr<JX::JXBroker> broker, const std::string& name)
      : JX::JXModule(broker, name) {
    setModuleDescription("Greets people and does small sums.");

    functionName("greet", getName(), "Greets somebody.");
    addParam("who", "The name to greet.");
    setReturn("greeting", "The greeting.");
    bindMethod(JX::makeFunctor(this, &Greeter::greet));

    functionName("add", getName(), "Adds two whole numbers.");
    addParam("a", "The first number.");
    addParam("b", "The second number.");
    setReturn("sum", "Their sum.");
    bindMethod(JX::makeFunctor([](int a, int b) { return std::int64_t{a} + b; }));

    functionName("sorted", getName(), "Sorts names.");
    addParam("names", "The names, in any order.");
    setReturn("sorted", "The names in alphabetical order.");
    bindMethod(JX::makeFunctor(this, &Greeter::sorted));

    functionName("mean", getName(), "The mean of numbers. Fails when there are none.");
    addParam("numbers", "One or more numbers.");
    setReturn("mean", "Their mean.");
    bindMethod(JX::makeFunctor(this, &Greeter::mean));
  }

  std::string greet(const std::string& who) const { return "Hello, " + who + "!"; }

  std::vector<std::string> sorted(std::vector<std::string> names) const {
    std::sort(names.begin(), names.end());
    return names;
  }

  double mean(const std::vector<double>& numbers) const {
    if (numbers.empty()) throw std::invalid_argument("the mean of no numbers is not defined");
    return std::accumulate(numbers.begin(), numbers.end(), 0.0) /
           static_cast<double>(numbers.size());
  }
};

void serve(const hello::Address& address, const sigset_t& endSignals) {
  const auto broker =
      JX::JXBroker::createBroker("robot", address.host, address.port, "", 0, 0, "", true);
  JX::createModule<Greeter>(broker, "Greeter");
  std::cout << "listening on tcp://" << broker->getIP() << ':' << broker->getPort() << std::endl;
  int signal = 0;
  sigwait(&endSignals, &signal);
  std::cout << "ending" << std::endl;
  broker->shutdown();
}

}  // namespace

int main(int argumentCount, char** arguments) {
  const auto address = hello::readAddress(argumentCount, arguments, 0);
  if (!address) {
    std::cerr << "usage: hello_robot <address> <port>, for example: hello_robot 127.0.0.1 9559\n"
                 "       port 0 asks the system for a free one\n";
    return 1;
  }
  // Before any thread is made: threads inherit the mask, so that the signals wait for sigwait.
  sigset_t endSignals;
  sigemptyset(&endSignals);
  sigaddset(&endSignals, SIGINT);
  sigaddset(&endSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);
  try {
    serve(*address, endSignals);
  } catch (const JX::JXError& error) {
    std::cerr << "hello_robot: " << error.description() << '\n';
    return 1;
  }
  return 0;
}
