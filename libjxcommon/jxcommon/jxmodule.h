#pragma once

#include <string>
#include <utility>

#include <jxcommon/api.h>
#include <jxcommon/jxfunctor.h>
#include <jxcommon/jxmodulecore.h>
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
class JXCOMMON_API JXModule : public JXModuleCore {
 public:
  JXModule(boost::shared_ptr<JXBroker> broker, const std::string& name);
  ~JXModule() override;

  void exit() override;
  void init() override;
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
