#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <jxcommon/api.h>
#include <jxcommon/fwd.h>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

namespace JX {

/// The list and what is done to it; the operations are those of JXBrokerManager.
class JXCOMMON_API JXBrokerManagerPrivate {
 public:
  using Broker = boost::shared_ptr<JXBroker>;

  void addBroker(const Broker& broker);
  void removeFromList(const Broker& broker);
  void removeBroker(const Broker& broker);
  Broker getBroker(int index);
  Broker getBrokerByName(const std::string& name);
  Broker getBrokerByParentIPPort(const std::string& ip, int port);
  void killAllBroker();

  /// The first entry of the list; an empty one is erased.
  Broker xGetRandomBroker();

  std::vector<Broker> brokerList;
  boost::mutex brokerListMutex;  // guards brokerList

 private:
  static constexpr std::size_t notFound = static_cast<std::size_t>(-1);

  /// Walks the list from the front and erases each empty entry that it meets. An entry, empty or
  /// not, for which `matches` is true ends the walk: the result is the position then, which after
  /// an erased entry is that of its follower and may be the list's end. The follower of an erased
  /// entry that did not match is stepped over.
  template <class Matches>
  std::size_t sweepLocked(Matches matches);
  /// Takes the entry at a position out, if there is one. The result has to die after the unlock: it
  /// may be the last owner.
  Broker eraseLocked(std::size_t position);
};

}  // namespace JX
