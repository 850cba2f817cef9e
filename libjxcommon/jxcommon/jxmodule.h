#pragma once

#include <string>
#include <utility>

#include <jxcommon/api.h>
#include <jxcommon/jxfunctor.h>
#include <jxcommon/jxmodulecore.h>
#include <jxcommon/jxprocesssignals.h>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

namespace JX {

/// What user modules derive from. The constructor of a module binds its methods; the module is
/// then made by createModule.
///
/// @code
/// class Greeter : public JX::JXModule {
///  public:
///   Greeter(boost::shared_ptr<JX::JXBroker> broker, const std::string& name)
///       : JX::JXModule(broker, name) {
///     functionName("greet", getName(), "Greets somebody.", 0);
///     bindMethod(JX::makeFunctor(this, &Greeter::greet));
///   }
///   std::string greet(const std::string& who);
/// };
/// auto greeter = JX::createModule<Greeter>(broker, "Greeter");
/// @endcode
class JXCOMMON_API JXModule : public JXModuleCore, public detail::JXProcessSignals {
 public:
  /// Offers, beside what every module core does, "version", "ping", "getMethodList",
  /// "getMethodHelp", "getModuleHelp", "wait", "isRunning", "stop", "getBrokerName" and "getUsage".
  JXModule(boost::shared_ptr<JXBroker> broker, const std::string& name);
  ~JXModule() override;

  void exit() override;
  std::string httpGet() override;
  void init() override;

  /// Waits for the end of a posted call of this module, for so many milliseconds, 0 and less
  /// without limit. True when it still runs then; false when it has ended, and for an unknown id.
  bool wait(const int& id, const int& timeoutPeriod);
  /// Whether a posted call of this module, of an id that was given, has not ended. Once false it
  /// stays so.
  bool isRunning(const int& id);
  /// Asks a posted call to stop, and returns at once: it ends when its method looks.
  virtual void stop(const int& id);

 protected:
  /// For long methods: whether that posted call, -1 the one that this thread runs, was asked to
  /// stop. False for an unknown one.
  bool isStopRequired(const int& id = -1);
  /// The id of the posted call that this thread runs; -1 where it runs none.
  int getMethodID();
  /// Whether this thread runs a posted call of this module.
  bool isPCalled();
};

/// Makes a module T(broker, name, arguments...), calls its init() and publishes it. When one of
/// these throws, that passes to the caller and nothing stays published. The broker holds the module
/// from then on, until it is withdrawn or the broker shuts down.
template <class T, class... A>
boost::shared_ptr<T> createModule(boost::shared_ptr<JXBroker> broker, const std::string& name,
                                  A&&... arguments) {
  auto module = boost::make_shared<T>(std::move(broker), name, std::forward<A>(arguments)...);
  JXModuleCore& core = *module;
  try {
    core.init();
    core.initModule();
  } catch (...) {
    core.JXModuleCore::exit();  // where init() had published it
    throw;
  }
  return module;
}

}  // namespace JX
