// Makes calls, or serves them, and tells what that took; check counts what it cannot see itself.
//
//   cost_peer serve                       writes its port, and serves until its input ends
//   cost_peer call <port> <kind> <count>  calls another process; kind: typed or untyped
//   cost_peer local <kind> <count>        calls a module of its own
//
// At the end: "allocations <count>" and "switches <count>", of the whole process and all its life.
// A switch is a thread that gave up the processor to wait.

#include <sys/resource.h>

#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxproxy.h>
#include <boost/make_shared.hpp>

#include "allocationcount.h"
#include "benchmodule.h"

namespace {

using Words = std::vector<std::string>;

void tell() {
  rusage used{};
  ::getrusage(RUSAGE_SELF, &used);
  std::cout << "allocations " << bench::AllocationCount::now().made << "\nswitches "
            << used.ru_nvcsw << std::endl;
}

void call(JX::JXProxy& proxy, const std::string& kind, int count) {
  const bool isTyped = kind == "typed";
  if (!isTyped && kind != "untyped") throw std::runtime_error("there is no kind " + kind);
  for (int i = 0; i < count; ++i) {
    const int sum = isTyped ? proxy.call<int>("add", i, 2)
                            : proxy.genericCall("add", std::vector<JX::JXValue>{i, 2}).toInt();
    if (sum != i + 2) throw std::runtime_error("a wrong sum");
  }
}

void serve() {
  const auto broker = JX::JXBroker::createBroker("server", "127.0.0.1", 0, "", 0);
  const auto module = JX::createModule<bench::BenchModule>(broker, "Bench");
  std::cout << broker->getPort() << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
  }
  tell();
  broker->shutdown();
}

void run(const Words& words) {
  if (words.at(0) == "serve") return serve();
  if (words.at(0) == "local") {
    const auto module = boost::make_shared<bench::BenchModule>(nullptr, "Bench");
    JX::JXProxy proxy(module->asObject(), "Bench");
    call(proxy, words.at(1), std::stoi(words.at(2)));
    return tell();
  }
  const auto broker =
      JX::JXBroker::createBroker("client", "127.0.0.1", 0, "127.0.0.1", std::stoi(words.at(1)));
  {
    JX::JXProxy proxy(broker, "Bench");
    call(proxy, words.at(2), std::stoi(words.at(3)));
    tell();
  }
  broker->shutdown();
}

}  // namespace

int main(int argumentCount, char** arguments) {
  try {
    run({arguments + 1, arguments + argumentCount});
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "cost_peer: " << error.what() << '\n';
    return 1;
  }
}
