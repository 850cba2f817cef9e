#pragma once

#include <memory>
#include <string>

#include <jxcommon/api.h>
#include <jxcommon/fwd.h>
#include <boost/shared_ptr.hpp>

namespace JX {

/// The process's list of live brokers, in the order in which they were added. It holds them: a
/// broker lives at least until it is taken off, as its shutdown does.
///
/// Every operation may be called from any thread. None fails: a broker that is not there is an
/// empty pointer.
class JXCOMMON_API JXBrokerManager {
 public:
  JXBrokerManager();
  virtual ~JXBrokerManager();
  JXBrokerManager(const JXBrokerManager&) = delete;
  JXBrokerManager& operator=(const JXBrokerManager&) = delete;

  /// The process's manager, made at the first call. Empty after setInstance with an empty pointer.
  static boost::shared_ptr<JXBrokerManager> getInstance();
  /// Replaces the process's manager and returns it. Brokers stay with the one that they were added
  /// to.
  static boost::shared_ptr<JXBrokerManager> setInstance(
      boost::shared_ptr<JXBrokerManager> instance);

  /// The operations below that search walk the list from the front and erase the empty entries that
  /// they meet; the entry behind an erased one is stepped over in that walk.

  /// Adds a broker at the end, unless the walk finds it listed.
  void addBroker(boost::shared_ptr<JXBroker> broker);
  /// Takes a broker off the list and nothing else.
  void removeFromList(boost::shared_ptr<JXBroker> broker);
  /// Takes a broker off the list and shuts it down. When it is not listed, the last entry that was
  /// looked at is shut down instead and stays listed.
  void removeBroker(boost::shared_ptr<JXBroker> broker);

  /// The broker at a position, from 0.
  boost::shared_ptr<JXBroker> getBroker(int index);
  /// The first broker of that name.
  boost::shared_ptr<JXBroker> getBrokerByName(const std::string& name);

  /// Shuts the listed brokers down, each once, from the oldest on, until no other is left.
  void killAllBroker();

 private:
  static boost::shared_ptr<JXBrokerManager>* _singleton;  // never freed

  const std::unique_ptr<JXBrokerManagerPrivate> _p;
};

}  // namespace JX
