// A robot for tests: publishes the module "Robot" on a free port of 127.0.0.1, says where, and
// serves until it is told to end.

#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>

#include <condition_variable>
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

 private:
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
};

}  // namespace

int main() {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves no robot behind
  sigset_t endSignals;
  sigemptyset(&endSignals);
  sigaddset(&endSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);  // before there is any other thread
  try {
    const auto broker = JX::JXBroker::createBroker("robot", "127.0.0.1", 0, "", 0, 0, "", true);
    JX::createModule<Robot>(broker, "Robot");
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
