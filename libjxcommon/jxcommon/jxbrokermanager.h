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
/// Every operation may be called from any thread. A broker that is not there is an empty pointer;
/// only what the shutdown of one throws passes to the caller.
class JXCOMMON_API JXBrokerManager {
 public:
  JXBrokerManager();
  virtual ~JXBrokerManager();
  JXBrokerManager(const JXBrokerManager&) = delete;
  JXBrokerManager& operator=(const JXBrokerManager&) = delete;

  /// The process's manager, made at the first call. Empty after setInstance with an empty pointer.
  static boost::shared_ptr<JXBrokerManager> getInstance();
  /// Replaces the process's manager and returns it. Brokers stay with the one that they were added
  /// to, which nothing takes them off then: shut them down before, or they stay in memory. While it
  /// is empty, new brokers are listed nowhere and createBroker works as ever.
  static boost::shared_ptr<JXBrokerManager> setInstance(
      boost::shared_ptr<JXBrokerManager> instance);
  /// Does nothing but write a log record: the manager stays.
  static void kill();

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
  /// The first broker whose parent's address is this; see JXBroker::getParentIP. Steps over empty
  /// entries and leaves them. A broker before it that has lost its address, as in the middle of a
  /// shutdown, ends the search: that is logged, and none is found.
  boost::shared_ptr<JXBroker> getBrokerByParentIPPort(const std::string& ip, int port);

  /// Deprecated, each with a log record: the first entry of the list, whatever address is asked
  /// for. An empty entry is erased and the result empty, whoever comes behind it; an empty list
  /// gives an empty pointer.
  boost::shared_ptr<JXBroker> getReservedBroker();
  boost::shared_ptr<JXBroker> getRandomBroker();
  boost::shared_ptr<JXBroker> getBrokerByIPPort(const std::string& ip, int port);
  boost::shared_ptr<JXBroker> getBrokerByIPPort(const std::string& address);

  /// Shuts the listed brokers down, one after the other, from the oldest on, those added meanwhile
  /// included, until none is left that this call has not taken up. So it always ends: a broker that
  /// stays listed because it was shut down before, or because another thread is at it, is taken up
  /// once and not waited for, and empty entries are passed over. What a shutdown throws ends it.
  void killAllBroker();

 private:
  static boost::shared_ptr<JXBrokerManager>* _singleton;  // never freed

  const std::unique_ptr<JXBrokerManagerPrivate> _p;
};

}  // namespace JX
