#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gvtype/anyarguments.h>
#include <gvtype/anyvalue.h>
#include <gvtype/dynamicobject.h>
#include <gvtype/dynamicobjectbuilder.h>
#include <jxcommon/api.h>
#include <jxcommon/fwd.h>
#include <jxcommon/jxvaluetype.h>
#include <boost/enable_shared_from_this.hpp>
#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>

namespace JX {

/// The core of every module: methods bound by name, each with its description, on an object that
/// local and remote callers reach under the module's name.
///
/// A module is owned by a boost::shared_ptr before it is published or called; what needs that
/// throws boost::bad_weak_ptr otherwise. It holds its broker; its broker holds it while it is
/// published. A call in flight keeps it alive. Its destructor may run on any thread.
///
/// Life: made stopped; initModule publishes it, exit withdraws it, and so on. Methods run side by
/// side on any threads: there is no lock around them.
class JXCOMMON_API JXModuleCore : public boost::enable_shared_from_this<JXModuleCore>,
                                  private boost::noncopyable,
                                  public gv::DynamicObject {
 public:
  /// What kind of program a module was, to older tools; the library stores and reads none.
  enum ModuleType { MODULE_TYPE_UNDEFINED = 0 };

  /// Makes a stopped module that offers "exit", "__pCall" and "pCall". Any name is taken here;
  /// publishing refuses one outside the grammar of service names.
  JXModuleCore(boost::shared_ptr<JXBroker> broker, const std::string& name);
  ~JXModuleCore() override;

  boost::shared_ptr<JXModuleCore> getThis();
  boost::shared_ptr<const JXModuleCore> getThis() const;

  /// A handle that shares ownership of the module.
  gv::Object<gv::Empty> asObject();

  const std::string& getName() const;
  boost::shared_ptr<JXBroker> getParentBroker() const;

  /// Whether the module is not published.
  bool isModuleStopped();
  /// Always false.
  bool isClosing();

  /// Publishes a stopped module under its name: enters it in its broker's table and registers its
  /// service; waits for that. Does nothing on a published one. Throws JXError for a name that is in
  /// use or not allowed, or when the network refuses; the module is stopped then. It also comes
  /// back stopped when exit() was called meanwhile.
  void initModule();

  /// Routes a call. Methods of the framework (ids up to 98) go to the framework. Any other runs in
  /// the calling thread, or, called queued, on the event loop with copies of its arguments, but for
  /// "__pCall", which always runs at once. An unknown id and whatever the method throws end the
  /// future in error. Throws boost::bad_weak_ptr.
  gv::Future<gv::AnyReference> metaCall(gv::Object<gv::Empty> context, unsigned methodId,
                                        const gv::GenericFunctionParameters& parameters,
                                        gv::MetaCallType callType,
                                        gv::Signature returnSignature) override;

  /// Not implemented: logs an error and returns false; `result` stays as it is.
  virtual bool execute(const std::string& name, const JXValue& arguments, JXValue& result);
  /// The version of the module: "2.1.4" where it has none of its own.
  virtual std::string version();
  /// Withdraws a published module; does nothing on a stopped one. Bodies that are running finish.
  virtual void exit();
  /// Not implemented: logs an error and returns its text.
  virtual std::string httpGet();
  /// Called once by createModule before the module is published. Does nothing; modules override it.
  virtual void init();

  // ---- Posted calls

  /// What the method "pCall" is: posts the method that the first argument names with the others.
  /// Returns the task's id at once. Throws JXError without arguments, and for what JXProxy::pCall
  /// does.
  int pCall(gv::AnyArguments arguments);
  /// What the method "__pCall" is: posts a method by its id. It runs on the event loop with copies
  /// of the arguments; the module lives until it has ended. Returns the task's id at once: ids
  /// count from 1 over all modules of the process. Throws JXError for an unknown id, and
  /// boost::bad_weak_ptr.
  int _pCall(unsigned methodId, const std::vector<gv::AnyValue>& arguments);

  // ---- What the module tells of itself

  /// The names of all methods, each once, those of the framework first, by ascending id.
  std::vector<std::string> getMethodList();
  /// Of a method: its name, its description, an array of name and description of each parameter, an
  /// empty text and the description of its result. Of several overloads the first one bound. Throws
  /// JXError where there is no such method.
  JXValue getMethodHelp(const std::string& name);
  /// True.
  bool ping();

  // ---- Kept for code that was written against them: each logs that it is not implemented and does
  //      nothing; texts are the logged one, pointers null, numbers as said

  void setModuleID(int id);
  int getModuleID();  ///< -1
  ModuleType getModuleType();
  void setModuleType(ModuleType type);
  boost::shared_ptr<JXModuleInfo> getModuleInfo();
  boost::shared_ptr<JXProxy> getProxy(const std::string& name);
  JXMethodInfo* getMethodInfo(const std::string& name);
  JXMethodInfo* getMethodInfo(const std::string& name, const std::vector<std::string>& types);
  JXMethodInfo* getMethodInfo(const std::string& name, const JXValue& arguments);
  JXMethodInfo* getMethodInfoByNameMember(const std::string& name,
                                          const std::vector<std::string>& types);
  /// Older names of the four above.
  JXMethodInfo* getFunctionDesc(const std::string& name);
  JXMethodInfo* getFunctionDesc(const std::string& name, const std::vector<std::string>& types);
  JXMethodInfo* getFunctionDesc(const std::string& name, const JXValue& arguments);
  JXMethodInfo* getFunctionDescByNameMember(const std::string& name,
                                            const std::vector<std::string>& types);
  std::string getUsage(const std::string& name);
  JXValue moduleHelp();                                       ///< invalid
  JXMethodInfo getMethodHelpObject(const std::string& name);  ///< empty
  std::string getBrokerName();

 protected:
  /// Binding, in the module's constructor, one method after another: functionName, addParam for
  /// each parameter, setReturn where there is a result, then bindMethod. Not for several threads.
  ///
  /// @code
  /// functionName("greet", getName(), "Greets somebody.", 0);
  /// addParam("who", "The name to greet.");
  /// setReturn("greeting", "The greeting.");
  /// bindMethod(JX::makeFunctor(this, &Greeter::greet));
  /// @endcode
  ///
  /// Starts the description of a method. The module's name and the number are ignored.
  void functionName(const std::string& name, const std::string& moduleName,
                    const std::string& description, int reserved = 0);
  /// Describes the next parameter.
  void addParam(const std::string& name, const std::string& description);
  /// Describes the result. The name is ignored.
  void setReturn(const std::string& name, const std::string& description);
  /// Describes the whole module.
  void setModuleDescription(const std::string& description);
  /// Both do nothing.
  void addMethodExample(const std::string& language, const std::string& example);
  void addModuleExample(const std::string& language, const std::string& example);

  /// Offers the functor under the current description, which stays: binding again offers another
  /// functor under the same one. The functor is empty afterwards. Throws JXError for a name outside
  /// the grammar of method names or an empty pointer; the functor is unchanged then.
  void bindMethod(const boost::shared_ptr<JXFunctorBase>& functor);
  /// Starts a description with this name and text and binds. The other arguments are ignored.
  void bindMethod(const boost::shared_ptr<JXFunctorBase>& functor, const std::string& name,
                  const std::string& moduleName, const std::string& description,
                  const JXMethodInfo& info);
  /// As bindMethod, for a further functor of the same name; throws std::runtime_error instead.
  void bindMethodOverload(const boost::shared_ptr<JXFunctorBase>& functor);

  /// An empty record, always the same one. Owned by the module.
  JXMethodInfo* getCurrentMethodDescription();

 private:
  friend class JXBroker;
  friend class JXBrokerPrivate;
  friend class JXModule;
  friend void catch_pcall(const boost::shared_ptr<JXModuleCore>& module, unsigned methodId,
                          JXPCallTask* task, const gv::AnyFunction& function,
                          gv::GenericFunctionParameters& parameters,
                          const gv::Object<gv::Empty>& context, unsigned callerThreadId);
  friend void finalizeTask(const boost::shared_ptr<JXModuleCore>& module, JXPCallTask* task,
                           bool sameThread);

  void advertise(JXFunctorBase* functor);

  gv::DynamicObjectBuilder objectBuilder_;
  gv::GenericObject genericObject_;
  const std::unique_ptr<JXModuleCorePrivate> d;
  gv::MetaMethodBuilder currentMethod_;  // confined to the thread that binds
};

}  // namespace JX
