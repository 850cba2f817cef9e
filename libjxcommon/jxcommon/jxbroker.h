#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gvmessaging/session.h>
#include <jxcommon/api.h>
#include <jxcommon/fwd.h>
#include <jxcommon/jxmoduleinfo.h>
#include <jxcommon/jxvaluetype.h>
#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

namespace JX {

/// A process's meeting point with the network: it publishes the modules made on it and finds those
/// of others. A master starts the network's service directory, a child joins one.
///
/// Life: createBroker gives it started and listed by the JXBrokerManager; shutdown takes it off the
/// list, withdraws its modules and closes its session, for good. It is destroyed, on any thread,
/// when its last owner lets go. Operations may be called from any thread unless they say
/// otherwise.
class JXCOMMON_API JXBroker : public boost::enable_shared_from_this<JXBroker> {
 public:
  /// Makes and starts a broker; blocks for up to 20 s.
  ///
  /// With an empty `parentIP` and a `parentPort` of 0 it is a master and listens on `ip` and `port`
  /// (defaults: empty is "0.0.0.0", a negative port 9559; 0 is any free one). Otherwise it is a
  /// child: it connects to `parentIP` (default "127.0.0.1") and `parentPort`, and listens on a free
  /// port of `ip`, whatever `port` says. The last three arguments are ignored.
  ///
  /// Throws JXError when it cannot listen within 15 s, or not connect within 5 s more; its
  /// description names the address, but for a child that cannot listen. No broker is left behind
  /// then.
  static boost::shared_ptr<JXBroker> createBroker(const std::string& name, const std::string& ip,
                                                  int port, const std::string& parentIP,
                                                  int parentPort, int reserved = 0,
                                                  std::string reservedText = {},
                                                  bool reservedFlag = true);
  virtual ~JXBroker();
  JXBroker(const JXBroker&) = delete;
  JXBroker& operator=(const JXBroker&) = delete;

  /// Throws boost::bad_weak_ptr in the broker's destruction.
  boost::shared_ptr<JXBroker> getThis();
  boost::shared_ptr<const JXBroker> getThis() const;

  /// Replaces the manager that this broker keeps alive. Not for several threads.
  void setBrokerManagerInstance(boost::shared_ptr<JXBrokerManager> manager);

  /// The session under the broker, the same for its whole life.
  boost::shared_ptr<gv::Session> session();
  /// Whether it has its service directory: false before long when the parent has gone, and after
  /// shutdown. A child does not connect again; modules of its process still reach each other.
  bool isConnected();
  /// Whether shutdown has begun.
  bool isExiting() const;

  /// As given to createBroker. Nothing keeps two brokers from having one name.
  std::string getName() const;
  /// The address of the service directory: a master's own, a child's parent; the host as it was
  /// given, the port as bound. Each throws JXError on a broker that has shut down.
  std::string getIP() const;
  int getPort() const;
  std::string getParentIP() const;
  int getParentPort() const;

  /// Appends what this process has published (getModuleList) or all that the network has
  /// (getGlobalModuleList), in the session's order, every service included; see JXModuleInfo.
  /// `list` must not be empty. Returns 0.
  ///
  /// getGlobalModuleList is one round trip to the directory and throws JXError where there is none
  /// any more; one that has stopped is waited for without limit. getModuleList asks nobody.
  int getModuleList(boost::shared_ptr<std::vector<JXModuleInfo>> list);
  int getGlobalModuleList(boost::shared_ptr<std::vector<JXModuleInfo>> list);
  /// Deprecated and not implemented: a log record, and 0.
  int getBrokerList(std::vector<JXModuleInfo>& list);
  /// Not implemented: a log record, and a text that says so.
  std::string httpGet(const std::string& request);

  /// The module of this broker that is published under the name, or empty. Never a remote one.
  boost::shared_ptr<JXModuleCore> getModuleByName(const std::string& name);
  /// Whether the network has a service of that name; asks and fails as getGlobalModuleList.
  bool isModulePresent(const std::string& name);
  /// Withdraws the module of that name, which may still believe that it is published; an unknown
  /// one is logged, as is a directory that refuses. Returns 0.
  int unregisterModule(const std::string& name);

  /// A proxy on a module of the network, as JXProxy's constructor makes it. `flags` is ignored.
  boost::shared_ptr<JXProxy> getProxy(const std::string& name, int flags);

  /// Ends the broker: off the manager's list, exit() of each module from the last registered to the
  /// first, then the session is closed. A module that registers itself meanwhile is refused. Waits
  /// for that, not for methods that are running: it may be called from one, from a log handler, and
  /// from the destructor of a static object. A child waits for its parent to confirm each
  /// withdrawal; for one that has stopped, 5 s in all. What a module's exit() throws is logged.
  /// Returns false when it was called before, without waiting for a shutdown in another thread.
  bool shutdown();

 private:
  friend class JXModuleCore;
  friend class JXProxy;

  JXBroker();

  boost::shared_ptr<JXBrokerManager> brokerManager_;  // set before the broker is shared
  const std::unique_ptr<JXBrokerPrivate> _p;
};

}  // namespace JX
