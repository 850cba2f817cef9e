#pragma once

#include <atomic>
#include <string>
#include <utility>

#include <gvtype/object.h>
#include <jxcommon/fwd.h>
#include <jxcommon/jxmethodinfo.h>
#include <boost/shared_ptr.hpp>

namespace JX {

class JXModuleCorePrivate {
 public:
  JXModuleCorePrivate(std::string moduleName, boost::shared_ptr<JXBroker> broker)
      : name(std::move(moduleName)), parentBroker(std::move(broker)) {}

  const std::string name;
  const boost::shared_ptr<JXBroker> parentBroker;
  /// True while the module is not published. Atomic: a remote "exit" may meet the owner's.
  std::atomic<bool> stopped{true};
  JXMethodInfo methodInfo;  // never filled
  /// 0 until registered. Atomic: written by the registering thread, read by the withdrawing one.
  std::atomic<unsigned> serviceId{0};
};

/// Runs one call of a method in this thread and settles its promise with the outcome; throws
/// nothing. `arguments` start with an empty slot for the instance and are gone when the promise
/// settles. `module` and `context` live to the end of the call.
void catch_call(const boost::shared_ptr<JXModuleCore>& module, unsigned methodId,
                const gv::AnyFunction& function, gv::GenericFunctionParameters arguments,
                const gv::Promise<gv::AnyReference>& promise, const gv::Object<gv::Empty>& context,
                unsigned callerThreadId);

}  // namespace JX
