// A robot that publishes one module, "Greeter", and serves it until it is interrupted.

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <map>
#include <mutex>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gv/future.h>
#include <jxcommon/jxbroker.h>
#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>

#include "arguments.h"

namespace {

using Names = std::vector<std::string>;

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

    functionName("count", getName(), "Counts, a number a millisecond, until it is asked to stop.");
    addParam("last", "Where it ends by itself.");
    bindMethod(JX::makeFunctor(this, &Greeter::count));

    functionName("counted", getName(), "How far it has counted.");
    setReturn("number", "The last number.");
    bindMethod(JX::makeFunctor([this] { return counted_.load(); }));

    functionName("onVisitor", getName(), "Takes note of a visitor.");
    addParam("name", "Who came.");
    bindMethod(JX::makeFunctor(this, &Greeter::onVisitor));

    functionName("visitors", getName(), "Who came, as soon as there are so many.");
    addParam("count", "How many to wait for.");
    setReturn("names", "Their names, in the order in which they came.");
    bindMethod(JX::makeFunctor(this, &Greeter::visitors));

    functionName("greetGuest", getName(), "Greets who a module stands for.");
    addParam("moduleName", "A module with a method \"fullName\".");
    setReturn("greeting", "The greeting.");
    bindMethod(JX::makeFunctor(this, &Greeter::greetGuest));
  }

  std::string greet(const std::string& who) const { return "Hello, " + who + "!"; }

  Names sorted(Names names) const {
    std::sort(names.begin(), names.end());
    return names;
  }

  double mean(const std::vector<double>& numbers) const {
    if (numbers.empty()) throw std::invalid_argument("the mean of no numbers is not defined");
    return std::accumulate(numbers.begin(), numbers.end(), 0.0) /
           static_cast<double>(numbers.size());
  }

  void count(int last) {
    for (counted_ = 0; counted_ < last && !isStopRequired(); ++counted_)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  void onVisitor(const std::string& name) {
    std::unique_lock lock(mutex_);
    visitors_.push_back(name);
    const auto come = waiting_.extract(visitors_.size());
    const Names names = visitors_;
    lock.unlock();
    if (come) come.mapped().setValue(names);
  }

  gv::Future<Names> visitors(unsigned count) {
    const std::lock_guard lock(mutex_);
    if (visitors_.size() >= count) {
      const gv::Promise<Names> come;
      come.setValue(visitors_);
      return come.future();
    }
    return waiting_[count].future();
  }

  std::string greetGuest(const std::string& moduleName) {
    return greet(getParentBroker()->getProxy(moduleName, 0)->call<std::string>("fullName"));
  }

 private:
  std::atomic<int> counted_{0};
  std::mutex mutex_;  // guards what follows
  Names visitors_;
  std::map<std::size_t, gv::Promise<Names>> waiting_;  // by how many visitors there must be
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
