#include <jxcommon/jxbrokermanager.h>

#include <algorithm>
#include <mutex>

#include <gv/log.h>
#include <jxcommon/jxbroker.h>
#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include "jxbrokermanager_p.h"

namespace JX {
namespace {

using gv::log::Level;

const gv::log::Category& category = gv::log::category("JXBroker.manager");

void log(Level level, const char* function, const std::string& text) {
  if (category.isEnabled(level)) gv::log::write(level, category, function, "", 0, text);
}

void logDeprecated(const char* function) {
  log(Level::Verbose, function,
      "This function is deprecated and always return the first created broker.");
}

constinit std::mutex singletonMutex;  // guards JXBrokerManager::_singleton

/// The brokers that one killing spree has shut down. Weak: it must not keep them alive, and an
/// address may come again.
class Killed {
 public:
  void add(const boost::shared_ptr<JXBroker>& broker) { brokers_.emplace_back(broker); }
  bool contains(const boost::shared_ptr<JXBroker>& broker) const {
    return std::any_of(brokers_.begin(), brokers_.end(), [&broker](const auto& killed) {
      return !killed.owner_before(broker) && !broker.owner_before(killed);
    });
  }

 private:
  std::vector<boost::weak_ptr<JXBroker>> brokers_;
};

}  // namespace

boost::shared_ptr<JXBrokerManager>* JXBrokerManager::_singleton = nullptr;

template <class Matches>
std::size_t JXBrokerManagerPrivate::sweepLocked(Matches matches) {
  for (std::size_t i = 0; i < brokerList.size(); ++i) {
    const Broker entry = brokerList[i];
    if (!entry) eraseLocked(i);
    if (matches(entry)) return i;
  }
  return notFound;
}

JXBrokerManagerPrivate::Broker JXBrokerManagerPrivate::eraseLocked(std::size_t position) {
  if (position >= brokerList.size()) return {};
  const auto entry = brokerList.begin() + static_cast<std::ptrdiff_t>(position);
  Broker broker = std::move(*entry);
  brokerList.erase(entry);
  return broker;
}

void JXBrokerManagerPrivate::addBroker(const Broker& broker) {
  const std::lock_guard lock(brokerListMutex);
  const auto position = sweepLocked([&broker](const Broker& entry) { return entry == broker; });
  if (position == notFound) brokerList.push_back(broker);
}

void JXBrokerManagerPrivate::removeFromList(const Broker& broker) {
  Broker removed;
  const std::lock_guard lock(brokerListMutex);
  removed = eraseLocked(sweepLocked([&broker](const Broker& entry) { return entry == broker; }));
}

void JXBrokerManagerPrivate::removeBroker(const Broker& broker) {
  Broker examined;
  Broker removed;
  {
    const std::lock_guard lock(brokerListMutex);
    removed = eraseLocked(sweepLocked([&](const Broker& entry) {
      examined = entry;
      return entry == broker;
    }));
  }
  if (examined) examined->shutdown();
}

JXBrokerManagerPrivate::Broker JXBrokerManagerPrivate::getBroker(int index) {
  const std::size_t position = static_cast<unsigned>(index);
  const std::lock_guard lock(brokerListMutex);
  if (position >= brokerList.size()) return {};
  const Broker broker = brokerList[position];
  if (!broker) eraseLocked(position);
  return broker;
}

JXBrokerManagerPrivate::Broker JXBrokerManagerPrivate::getBrokerByName(const std::string& name) {
  Broker found;
  const std::lock_guard lock(brokerListMutex);
  sweepLocked([&](const Broker& entry) {
    if (!entry || entry->getName() != name) return false;
    found = entry;
    return true;
  });
  return found;
}

JXBrokerManagerPrivate::Broker JXBrokerManagerPrivate::getBrokerByParentIPPort(
    const std::string& ip, int port) {
  std::vector<Broker> brokers;
  {
    const std::lock_guard lock(brokerListMutex);
    brokers = brokerList;
  }
  // On a copy: asking a broker for its address writes log records, so foreign code may run.
  try {
    for (const Broker& broker : brokers)
      if (broker && broker->getParentIP() == ip && broker->getParentPort() == port) return broker;
  } catch (const std::exception& error) {
    log(Level::Verbose, "getBrokerByParentIPPort",
        std::string("Error while iterating over brokers:") + error.what());
  }
  return {};
}

JXBrokerManagerPrivate::Broker JXBrokerManagerPrivate::xGetRandomBroker() {
  const std::lock_guard lock(brokerListMutex);
  if (brokerList.empty()) return {};
  Broker broker = brokerList.front();
  if (!broker) eraseLocked(0);
  return broker;
}

void JXBrokerManagerPrivate::killAllBroker() {
  log(Level::Verbose, "killAllBroker", "killing All Broker");
  // A broker that stays listed, shut down already or by another thread, is met once.
  Killed killed;
  const auto next = [&] {
    const std::lock_guard lock(brokerListMutex);
    const auto found = std::find_if(
        brokerList.begin(), brokerList.end(),
        [&killed](const Broker& broker) { return broker && !killed.contains(broker); });
    return found == brokerList.end() ? Broker() : *found;
  };
  while (const Broker broker = next()) {
    log(Level::Info, "killAllBroker", "Killing broker " + broker->getName());
    killed.add(broker);
    broker->shutdown();
  }
  log(Level::Verbose, "killAllBroker", "JXBroker Killing spree done.");
}

JXBrokerManager::JXBrokerManager() : _p(std::make_unique<JXBrokerManagerPrivate>()) {}

JXBrokerManager::~JXBrokerManager() = default;

boost::shared_ptr<JXBrokerManager> JXBrokerManager::getInstance() {
  const std::lock_guard lock(singletonMutex);
  if (!_singleton)
    _singleton = new boost::shared_ptr<JXBrokerManager>(boost::make_shared<JXBrokerManager>());
  return *_singleton;
}

boost::shared_ptr<JXBrokerManager> JXBrokerManager::setInstance(
    boost::shared_ptr<JXBrokerManager> instance) {
  boost::shared_ptr<JXBrokerManager> held = instance;
  const std::lock_guard lock(singletonMutex);
  if (!_singleton) _singleton = new boost::shared_ptr<JXBrokerManager>();
  _singleton->swap(instance);  // the former one dies with the argument, after the unlock
  return held;
}

void JXBrokerManager::kill() {
  log(Level::Verbose, "kill", "This function is not implemented");
}

void JXBrokerManager::addBroker(boost::shared_ptr<JXBroker> broker) {
  _p->addBroker(broker);
}

void JXBrokerManager::removeFromList(boost::shared_ptr<JXBroker> broker) {
  _p->removeFromList(broker);
}

void JXBrokerManager::removeBroker(boost::shared_ptr<JXBroker> broker) {
  _p->removeBroker(broker);
}

boost::shared_ptr<JXBroker> JXBrokerManager::getBroker(int index) {
  return _p->getBroker(index);
}

boost::shared_ptr<JXBroker> JXBrokerManager::getBrokerByName(const std::string& name) {
  return _p->getBrokerByName(name);
}

boost::shared_ptr<JXBroker> JXBrokerManager::getBrokerByParentIPPort(const std::string& ip,
                                                                     int port) {
  return _p->getBrokerByParentIPPort(ip, port);
}

boost::shared_ptr<JXBroker> JXBrokerManager::getReservedBroker() {
  logDeprecated("getReservedBroker");
  return _p->xGetRandomBroker();
}

boost::shared_ptr<JXBroker> JXBrokerManager::getRandomBroker() {
  logDeprecated("getRandomBroker");
  return _p->xGetRandomBroker();
}

boost::shared_ptr<JXBroker> JXBrokerManager::getBrokerByIPPort(const std::string&, int) {
  logDeprecated("getBrokerByIPPort");
  return _p->xGetRandomBroker();
}

boost::shared_ptr<JXBroker> JXBrokerManager::getBrokerByIPPort(const std::string&) {
  logDeprecated("getBrokerByIPPort");
  return _p->xGetRandomBroker();
}

void JXBrokerManager::killAllBroker() {
  _p->killAllBroker();
}

}  // namespace JX
