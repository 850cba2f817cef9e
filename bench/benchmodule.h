#pragma once

#include <atomic>
#include <string>

#include <gvtype/buffer.h>
#include <jxcommon/jxmodule.h>

namespace bench {

/// What benchmarks call.
class BenchModule : public JX::JXModule {
 public:
  BenchModule(boost::shared_ptr<JX::JXBroker> broker, const std::string& name)
      : JX::JXModule(broker, name) {
    functionName("add", getName(), "Adds two numbers.");
    bindMethod(JX::makeFunctor([](int a, int b) { return a + b; }));
    functionName("echo", getName(), "Gives back what it is given.");
    bindMethod(JX::makeFunctor([](const gv::Buffer& bytes) { return bytes; }));
    functionName("on", getName(), "Hears of something.");
    bindMethod(JX::makeFunctor([this](const std::string&, const JX::JXValue&) { ++heard_; }));
    functionName("heard", getName(), "How often it has heard.");
    bindMethod(JX::makeFunctor([this] { return heard_.load(); }));
    functionName("end", getName(), "Ends who waits for the end.");
    bindMethod(JX::makeFunctor([this] { ended_.setValue(); }));
  }
  void waitForTheEnd() { ended_.future().wait(); }

 private:
  std::atomic<int> heard_{0};
  const gv::Promise<void> ended_;
};

}  // namespace bench
