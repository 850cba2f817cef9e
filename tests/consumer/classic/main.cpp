// A program outside the tree: publishes a module on a broker and calls it.

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxfunctor.h>
#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>

#include <iostream>
#include <string>

namespace {

class Calculator : public JX::JXModule {
 public:
  Calculator(boost::shared_ptr<JX::JXBroker> broker, const std::string& name)
      : JXModule(broker, name) {
    functionName("add", name, "adds two numbers");
    bindMethod(JX::makeFunctor(this, &Calculator::add));
  }

  int add(int left, int right) { return left + right; }
};

}  // namespace

int main() {
  try {
    const auto broker = JX::JXBroker::createBroker("outside", "127.0.0.1", 0, "", 0);
    JX::createModule<Calculator>(broker, "Calculator");
    JX::JXProxy proxy(broker, "Calculator");
    const int sum = proxy.call<int>("add", 2, 3);
    broker->shutdown();
    std::cout << "2 + 3 = " << sum << '\n';
    return sum == 5 ? 0 : 1;
  } catch (const JX::JXError& error) {
    std::cerr << error.toString() << '\n';
    return 1;
  }
}
