#pragma once

#include <atomic>
#include <map>
#include <string>

#include <gvmessaging/session.h>
#include <jxcommon/fwd.h>
#include <jxcommon/jxbroker.h>
#include <boost/shared_ptr.hpp>
#include <boost/thread/shared_mutex.hpp>

namespace JX {

/// A broker's session and its table of published modules.
class JXBrokerPrivate {
 public:
  JXBrokerPrivate();
  ~JXBrokerPrivate();

  /// Publishes a module and enters it in the table; waits for the session. Throws JXError.
  void registerModule(const boost::shared_ptr<JXModuleCore>& module);
  /// Takes the module of that name out of the table and withdraws its service; throws nothing.
  void unregisterModule(JXBroker& broker, const std::string& name);
  /// Withdraws a module's service; an empty module is no error.
  void unlockedUnregisterModule(JXBroker& broker, const std::string& name,
                                const boost::shared_ptr<JXModuleCore>& module);

  /// The object of a service, empty when there is none; `*isLocal` tells whether it is of this
  /// process. Each of the two look-ups waits up to the deadlock time-out.
  gv::Object<gv::Empty> service(const std::string& name, bool* isLocal);

  /// Called when a service comes and goes; nothing depends on either.
  void onServiceRegistered(gv::Session*, const std::string&, void*) {}
  void onServiceUnregistered(gv::Session*, const std::string&, void*) {}

  std::map<std::string, boost::shared_ptr<JXModuleCore>> modules;
  boost::shared_mutex modulesMutex;  // guards modules
  const boost::shared_ptr<gv::Session> session;
  std::string name;  // set before the broker is shared, constant then
  /// Set once, when shutdown begins. Atomic: any thread asks.
  std::atomic<bool> exiting{false};
};

}  // namespace JX
