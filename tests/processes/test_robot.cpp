// A robot for tests: publishes the module "Robot" on a free port of 127.0.0.1, says where, and
// serves until it is told to end. With arguments: another name, and the port of the robot that it
// joins. TEST_DESCRIPTORS in the environment: how many it may have.

#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>

#include <jxcommon/jxbroker.h>
#include <jxcommon/jxmodule.h>
#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>
#include <boost/make_shared.hpp>

namespace {

class Robot : public JX::JXModule {
 public:
  Robot(boost::shared_ptr<JX::JXBroker> broker, const std::string& name)
      : JX::JXModule(broker, name) {
    offer("echo", &Robot::echo);
    offer("add", &Robot::add);
    offer("hold", &Robot::hold);
    offer("release", &Robot::release);
    offer("relay", &Robot::relay);
    offer("fail", &Robot::fail);
    offer("make", &Robot::make);
    offer("promise", &Robot::promise);
    offer("forward", &Robot::forward);
    offer("descend", &Robot::descend);
    offer("reached", &Robot::reached);
  }

  JX::JXValue echo(const JX::JXValue& value) { return value; }

  int add(int a, int b) { return a + b; }

  /// Returns when the key has been released, and forgets it; writes a line when it begins to wait.
  void hold(const std::string& key) {
    std::cout << "holding " + key + "\n" << std::flush;
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return released_.erase(key) > 0; });
  }

  void release(const std::string& key) {
    const std::lock_guard lock(mutex_);
    released_.insert(key);
    changed_.notify_all();
  }

  /// What the method "twice" of another module makes of the number.
  int relay(const std::string& moduleName, int number) {
    return proxyOn(moduleName)->call<int>("twice", number);
  }

  void fail(const std::string& text) { throw std::runtime_error(text); }

  /// So many bytes; writes a line when they are made.
  JX::JXValue make(int size) {
    const std::string bytes(static_cast<std::size_t>(size), '-');
    std::cout << "made\n" << std::flush;
    return JX::JXValue::binary(bytes.data(), bytes.size());
  }

  /// What is never settled; writes a line when it is promised.
  gv::Future<int> promise() {
    std::cout << "promised\n" << std::flush;
    return promise_.future();
  }

  /// What a method of another module makes of the value.
  JX::JXValue forward(const std::string& moduleName, const std::string& method,
                      const JX::JXValue& value) {
    return proxyOn(moduleName)->genericCall(method, std::vector<JX::JXValue>{value});
  }

  /// How many levels there are below: calls another robot's descend, which calls back, and so on.
  /// The manner of each call is "typed", "untyped", "posted" or "in a callback".
  gv::Future<int> descend(int levels, const std::string& other, const std::string& manner) {
    if (manner != "in a callback") return gv::makeReadyFuture(below(levels, other, manner));
    return proxyOn(other)
        ->asObject()
        .async<int>("add", 0, 0)
        .then([=, this](const gv::Future<int>&) { return below(levels, other, manner); });
  }

  /// What the last descend that was posted came to.
  int reached() {
    const std::lock_guard lock(mutex_);
    if (!failure_.empty()) throw std::runtime_error(failure_);
    return reached_;
  }

 private:
  int below(int levels, const std::string& other, const std::string& manner) {
    int reached = 0;
    std::string failure;
    try {
      if (levels > 0) reached = 1 + throughAnother(levels - 1, other, manner);
    } catch (const std::exception& error) {
      failure = error.what();
    }
    {
      const std::lock_guard lock(mutex_);
      reached_ = reached;
      failure_ = failure;
    }
    if (!failure.empty()) throw std::runtime_error(failure);
    return reached;
  }

  int throughAnother(int levels, const std::string& other, const std::string& manner) {
    const auto proxy = proxyOn(other);
    const JX::JXValue arguments = std::vector<JX::JXValue>{levels, getName(), manner};
    if (manner == "untyped") return proxy->genericCall("descend", arguments).toInt();
    if (manner != "posted") return proxy->call<int>("descend", levels, getName(), manner);
    proxy->wait(proxy->genericPCall("descend", arguments), 0);
    return proxy->call<int>("reached");
  }

  template <class Member>
  void offer(const std::string& name, Member member) {
    functionName(name, getName(), "");
    bindMethod(JX::makeFunctor(this, member));
  }

  boost::shared_ptr<JX::JXProxy> proxyOn(const std::string& moduleName) {
    {
      const std::lock_guard lock(mutex_);
      if (const auto found = proxies_.find(moduleName); found != proxies_.end())
        return found->second;
    }
    const auto proxy = getParentBroker()->getProxy(moduleName, 0);
    const std::lock_guard lock(mutex_);
    return proxies_.insert_or_assign(moduleName, proxy).first->second;
  }

  std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::set<std::string> released_;
  std::map<std::string, boost::shared_ptr<JX::JXProxy>> proxies_;
  int reached_ = 0;
  std::string failure_;
  const gv::Promise<int> promise_;
};

}  // namespace

int main(int argc, char* argv[]) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves no robot behind
  sigset_t endSignals;
  sigemptyset(&endSignals);
  sigaddset(&endSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);  // before there is any other thread
  if (const char* most = std::getenv("TEST_DESCRIPTORS")) {
    const rlimit limit{std::stoul(most), std::stoul(most)};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
  }
  try {
    const std::string name = argc > 1 ? argv[1] : "Robot";
    const int port = argc > 2 ? std::stoi(argv[2]) : 0;
    const auto broker = JX::JXBroker::createBroker("of " + name, "127.0.0.1", 0,
                                                   port ? "127.0.0.1" : "", port, 0, "", true);
    JX::createModule<Robot>(broker, name);
    std::cout << "listening on tcp://" << broker->getIP() << ':' << broker->getPort() << std::endl;
    int signal = 0;
    sigwait(&endSignals, &signal);
    broker->shutdown();
    return 0;
  } catch (const JX::JXError& error) {
    std::cerr << error.description() << '\n';
    return 1;
  }
}
