#pragma once

// Forward declarations of libjxcommon, for headers that only name its types.

namespace JX {

class JXBroker;
class JXBrokerManager;
class JXBrokerManagerPrivate;
class JXBrokerPrivate;
class JXFunctorBase;
class JXModule;
class JXModuleCore;
class JXModuleCorePrivate;
class JXProxy;
class JXProxyPrivate;
struct JXMethodInfo;
struct JXModuleInfo;
struct JXPCallTask;

}  // namespace JX
