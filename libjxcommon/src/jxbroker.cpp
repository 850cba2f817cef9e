#include <jxcommon/jxbroker.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <shared_mutex>

#include <gv/log.h>
#include <gv/os.h>
#include <jxcommon/jxbrokermanager.h>
#include <jxcommon/jxmodulecore.h>
#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>
#include <boost/make_shared.hpp>

#include "jxbroker_p.h"
#include "jxmodulecore_p.h"

namespace JX {
namespace {

using gv::log::Level;

constexpr const char* file = "../libjxcommon/src/jxbroker";
constexpr int listenTimeoutMs = 15000;
constexpr int connectTimeoutMs = 5000;

const gv::log::Category& category = gv::log::category("JXBroker");

void log(Level level, const char* function, const std::string& text) {
  if (category.isEnabled(level)) gv::log::write(level, category, function, "", 0, text);
}

[[noreturn]] void fail(const char* method, const std::string& description, int line) {
  throw JXError("JXBroker", method, description, file, line);
}

std::string tcpUrl(const std::string& host, int port) {
  return "tcp://" + host + ":" + std::to_string(port);
}

/// A future that is late, failed or cancelled means the same: there is no network.
bool hasSucceeded(const gv::Future<void>& future, int timeoutMs) {
  return future.wait(timeoutMs) == gv::FutureState::FinishedWithValue;
}

/// The wait of each service look-up in ms. Read from the environment until it is something else
/// than the marker -1. Atomic: first look-ups may race, with the same outcome.
int deadlockTimeoutMs() {
  static std::atomic<long> msWait{-1};
  if (msWait == -1) {
    const std::string text = gv::os::getenv("GV_DEADLOCK_TIMEOUT");
    msWait = text.empty() ? 30000 : std::strtol(text.c_str(), nullptr, 0);
  }
  return static_cast<int>(
      std::clamp<long>(msWait, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

std::vector<gv::ServiceInfo> servicesOf(gv::Session& session, gv::Session::ServiceLocality locality,
                                        const char* method) {
  try {
    return session.services(locality).value();
  } catch (const gv::FutureException& error) {
    fail(method, std::string("Can't list services: ") + error.what(), __LINE__);
  }
}

gv::Url urlOf(const gv::Session& session, const char* method) {
  try {
    return session.url();
  } catch (const std::runtime_error& error) {
    fail(method, error.what(), __LINE__);
  }
}

/// Every service counts as a module, whoever published it.
int appendModules(gv::Session& session, gv::Session::ServiceLocality locality, const char* method,
                  std::vector<JXModuleInfo>& list) {
  log(Level::Warning, method,
      std::string("JXBroker::") + method + " may contain incomplete information (missing ip/port)");
  for (const gv::ServiceInfo& service : servicesOf(session, locality, method)) {
    JXModuleInfo info;
    info.name = service.name();
    info.processId = static_cast<int>(service.processId());
    list.push_back(std::move(info));
  }
  return 0;
}

/// Ends one module in a shutdown, which goes on whatever the module does.
void exitModule(JXModuleCore& module) {
  const auto report = [&module](const char* text) {
    log(Level::Error, "shutdown", "module " + module.getName() + " failed to exit: " + text);
  };
  try {
    module.exit();
  } catch (const std::exception& error) {
    report(error.what());
  } catch (...) {
    report("unknown exception");
  }
}

}  // namespace

JXBrokerPrivate::JXBrokerPrivate() : session(boost::make_shared<gv::Session>()) {}

JXBrokerPrivate::~JXBrokerPrivate() = default;

void JXBrokerPrivate::registerModule(const boost::shared_ptr<JXModuleCore>& module) {
  const gv::Object<gv::Empty> object = module->asObject();
  const std::string& moduleName = module->getName();
  {
    const std::shared_lock lock(modulesMutex);
    if (modules.contains(moduleName))
      fail("registerModule", "module '" + moduleName + "'already exists", __LINE__);
  }
  const auto refuse = [&moduleName](const std::string& reason) {
    fail("registerService", "Can't register module '" + moduleName + "':" + reason, __LINE__);
  };
  try {
    // With no lock: a slow directory must not block look-ups. In the gap the session refuses a
    // namesake.
    module->d->serviceId = session->registerService(moduleName, object).value();
  } catch (const gv::FutureException& error) {
    refuse(error.what());
  }
  boost::shared_ptr<JXModuleCore> entry = module;
  bool isWithdrawn = false;
  {
    const std::unique_lock lock(modulesMutex);
    // Already callable: it may have been told to exit, or the broker to shut down, meanwhile.
    isWithdrawn = exiting || module->isModuleStopped();
    if (!isWithdrawn) modules[moduleName].swap(entry);
  }
  if (!isWithdrawn) return;
  unlockedUnregisterModule(*module->getParentBroker(), moduleName, module);
  if (exiting) refuse("the broker is shutting down");
}

void JXBrokerPrivate::unregisterModule(JXBroker& broker, const std::string& moduleName) {
  boost::shared_ptr<JXModuleCore> module;
  {
    const std::unique_lock lock(modulesMutex);
    const auto found = modules.find(moduleName);
    if (found != modules.end()) {
      module = std::move(found->second);
      modules.erase(found);
    }
  }
  if (!module)
    log(Level::Error, "unregisterModule",
        "JXBroker::unregisterModule can't unregister module: " + moduleName);
  unlockedUnregisterModule(broker, moduleName, module);
}

void JXBrokerPrivate::unlockedUnregisterModule(JXBroker& broker, const std::string& moduleName,
                                               const boost::shared_ptr<JXModuleCore>& module) {
  if (!module) return;
  try {
    broker.session()->unregisterService(module->d->serviceId).value();
  } catch (const gv::FutureException& error) {
    log(Level::Info, "unlockedUnregisterModule",
        "Cannot unregister module " + moduleName + " : " + error.what());
  }
}

gv::Object<gv::Empty> JXBrokerPrivate::service(const std::string& serviceName, bool* isLocal) {
  const int timeoutMs = deadlockTimeoutMs();
  const auto look = [&](const char* protocol, const char* kind, const char* ending) {
    try {
      return session->service(serviceName, protocol).value(timeoutMs);
    } catch (const gv::FutureException& error) {
      log(Level::Verbose, "service",
          std::string("Future exception while checking ") + kind + " service: " + error.what());
      if (error.state() != gv::FutureException::State::UserError)
        log(Level::Warning, "service",
            "session.service(" + serviceName + ") " + ending + " after 30sec.");
      return gv::Object<gv::Empty>();
    }
  };
  *isLocal = true;
  const gv::Object<gv::Empty> local = look("local", "local", "timeout");
  if (local.isValid()) return local;
  *isLocal = false;
  return look("", "remote", "timed out");
}

JXBroker::JXBroker() : _p(std::make_unique<JXBrokerPrivate>()) {}

JXBroker::~JXBroker() = default;

boost::shared_ptr<JXBroker> JXBroker::createBroker(const std::string& name, const std::string& ip,
                                                   int port, const std::string& parentIP,
                                                   int parentPort, int, std::string, bool) {
  const boost::shared_ptr<JXBroker> broker(new JXBroker());
  gv::Session& session = *broker->_p->session;
  const bool isMaster = parentIP.empty() && parentPort == 0;
  const std::string host = ip.empty() ? "0.0.0.0" : ip;
  std::string parentUrl;
  gv::Future<void> started;
  if (isMaster) {
    const std::string url = tcpUrl(host, port < 0 ? 9559 : port);
    log(Level::Verbose, "createBroker", "Creating a master which listen on " + url);
    started = session.listenStandalone(url);
    if (!hasSucceeded(started, listenTimeoutMs))
      fail("createBroker", "Service Directory can't listen on " + url, __LINE__);
  } else {
    parentUrl = tcpUrl(parentIP.empty() ? "127.0.0.1" : parentIP, parentPort);
    log(Level::Verbose, "createBroker", "Connecting broker to " + parentUrl);
    started = session.connect(parentUrl);  // goes on while the listener starts
    if (!hasSucceeded(session.listen(tcpUrl(host, 0)), listenTimeoutMs))
      fail("createBroker", "Can't create a server", __LINE__);
  }
  if (!hasSucceeded(started, connectTimeoutMs))
    fail("createBroker", "Cannot connect to " + parentUrl, __LINE__);
  // Before the manager shows it: what other threads find is a named, started broker.
  broker->_p->name = name;
  if (const auto manager = JXBrokerManager::getInstance()) {
    broker->brokerManager_ = manager;
    manager->addBroker(broker);
  }
  return broker;
}

boost::shared_ptr<JXBroker> JXBroker::getThis() {
  return shared_from_this();
}

boost::shared_ptr<const JXBroker> JXBroker::getThis() const {
  return shared_from_this();
}

void JXBroker::setBrokerManagerInstance(boost::shared_ptr<JXBrokerManager> manager) {
  brokerManager_ = std::move(manager);
}

boost::shared_ptr<gv::Session> JXBroker::session() {
  return _p->session;
}

bool JXBroker::isConnected() {
  return _p->session->isConnected();
}

bool JXBroker::isExiting() const {
  return _p->exiting;
}

std::string JXBroker::getName() const {
  return _p->name;
}

std::string JXBroker::getIP() const {
  log(Level::Verbose, "getIP", "IP asked. Ask for parent IP.");
  return getParentIP();
}

int JXBroker::getPort() const {
  log(Level::Verbose, "getPort", "Port asked. Ask for parent port.");
  return getParentPort();
}

std::string JXBroker::getParentIP() const {
  const std::string host = urlOf(*_p->session, "getParentIP").host();
  log(Level::Verbose, "getParentIP", "Ask for parent IP " + host);
  return host;
}

int JXBroker::getParentPort() const {
  const int port = urlOf(*_p->session, "getParentPort").port();
  log(Level::Verbose, "getParentPort", "Ask for parent port " + std::to_string(port));
  return port;
}

int JXBroker::getModuleList(boost::shared_ptr<std::vector<JXModuleInfo>> list) {
  return appendModules(*_p->session, gv::Session::ServiceLocality::Local, "getModuleList", *list);
}

int JXBroker::getGlobalModuleList(boost::shared_ptr<std::vector<JXModuleInfo>> list) {
  return appendModules(*_p->session, gv::Session::ServiceLocality::All, "getGlobalModuleList",
                       *list);
}

int JXBroker::getBrokerList(std::vector<JXModuleInfo>&) {
  log(Level::Error, "getBrokerList", "JXBroker::getBrokerList is not implemented and deprecated");
  return 0;
}

std::string JXBroker::httpGet(const std::string&) {
  log(Level::Error, "httpGet", "JXBroker::httpGet is not implemented");
  return "JXBroker::httpGet not implemented";
}

boost::shared_ptr<JXModuleCore> JXBroker::getModuleByName(const std::string& name) {
  {
    const std::shared_lock lock(_p->modulesMutex);
    const auto found = _p->modules.find(name);
    if (found != _p->modules.end()) return found->second;
  }
  log(Level::Verbose, "getModuleByName", "JXBroker::getModuleByName: module not found:" + name);
  return {};
}

bool JXBroker::isModulePresent(const std::string& name) {
  const auto services =
      servicesOf(*_p->session, gv::Session::ServiceLocality::All, "isModulePresent");
  return std::any_of(services.begin(), services.end(),
                     [&name](const gv::ServiceInfo& service) { return service.name() == name; });
}

int JXBroker::unregisterModule(const std::string& name) {
  _p->unregisterModule(*this, name);
  return 0;
}

boost::shared_ptr<JXProxy> JXBroker::getProxy(const std::string& name, int) {
  return boost::make_shared<JXProxy>(getThis(), name, 0, 0);
}

bool JXBroker::shutdown() {
  // The flag before the copy: a registration that comes later sees it and takes itself back.
  if (_p->exiting.exchange(true)) return false;
  // With the id of the moment: another thread may change it while they are sorted.
  std::vector<std::pair<unsigned, boost::shared_ptr<JXModuleCore>>> modules;
  {
    const std::shared_lock lock(_p->modulesMutex);
    for (const auto& [name, module] : _p->modules)
      modules.emplace_back(module->d->serviceId, module);
  }
  const auto self = getThis();
  if (const auto manager = JXBrokerManager::getInstance()) manager->removeFromList(self);
  std::sort(modules.begin(), modules.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  for (; !modules.empty(); modules.pop_back()) {
    JXModuleCore& module = *modules.back().second;
    exitModule(module);                      // comes back to the table: no lock here
    decltype(_p->modules)::node_type entry;  // dies after the unlock
    const std::unique_lock lock(_p->modulesMutex);
    entry = _p->modules.extract(module.getName());
  }
  if (_p->session->close().hasError())
    log(Level::Error, "shutdown", "the session of broker " + getName() + " did not close in order");
  return true;
}

}  // namespace JX
