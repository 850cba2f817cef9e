#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gvtype/object.h>
#include <jxcommon/api.h>
#include <jxcommon/fwd.h>
#include <jxcommon/jxvaluetype.h>
#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

namespace JX {

/// A client's handle on one module, of this process or another, found by name and called by name.
///
/// Bound once, in its constructor, and holds the module weakly: when the module has gone, every
/// call throws "module destroyed"; it never binds again. One proxy may be used from several threads
/// at a time; a call waits without limit.
///
/// @code
/// JX::JXProxy greeter(broker, "Greeter", 0, 0);
/// std::string text = greeter.call<std::string>("greet", std::string("Ada"));
/// @endcode
class JXCOMMON_API JXProxy : public boost::enable_shared_from_this<JXProxy> {
 public:
  /// Finds the module through a broker; blocks for up to twice GV_DEADLOCK_TIMEOUT. Throws JXError
  /// for an empty broker and when there is no such module. The numbers are ignored.
  JXProxy(boost::shared_ptr<JXBroker> broker, const std::string& moduleName, int = 0, int = 0);
  /// A proxy on an object at hand, without a broker. Throws JXError when it is not valid.
  JXProxy(gv::Object<gv::Empty> object, const std::string& moduleName);
  /// As the first one; address and numbers are ignored.
  JXProxy(const std::string& moduleName, const std::string& ip, int port,
          boost::shared_ptr<JXBroker> broker, int, int);
  /// Deprecated: makes a broker of its own as a child of the address, which stays with the
  /// JXBrokerManager, and finds the module through it. Throws as createBroker and the first one do.
  JXProxy(const std::string& moduleName, const std::string& ip, int port, int, int);
  /// Unbound: every call throws "module destroyed".
  JXProxy(const std::string& moduleName, int, int);
  /// Unbound and without a name: a copy shares nothing with its original.
  JXProxy(const JXProxy&);
  JXProxy& operator=(const JXProxy&) = delete;
  virtual ~JXProxy();

  /// The shared pointer that owns this proxy. Throws boost::bad_weak_ptr when none does.
  boost::shared_ptr<JXProxy> getThis();
  boost::shared_ptr<const JXProxy> getThis() const;

  /// Whether the module was found in this process.
  bool isLocal();
  std::string moduleName() const;
  /// The broker that the module was found through; empty when it has gone or there was none.
  boost::shared_ptr<JXBroker> getParentBroker() const;
  /// The module itself where that broker publishes it; empty otherwise (getModule also when it is
  /// no JXModule).
  boost::shared_ptr<JXModuleCore> getModuleCore() const;
  boost::shared_ptr<JXModule> getModule() const;
  /// A strong handle on the module. Throws std::runtime_error when it has gone.
  gv::Object<gv::Empty> asObject();

  /// Calls a method with arguments of any described types (texts may be literals) and waits for its
  /// result, for the eventual value where it returns a future; R may be void. The method is given
  /// by name or full signature ("twice(i)"); its body may run in this thread.
  ///
  /// Throws JXError with the module's and the method's name; its description is the text of the
  /// failure: what the method threw, no method that takes these arguments, a result that does not
  /// convert, a lost connection.
  template <class R, class... P>
  R call(const std::string& methodName, const P&... arguments);

  /// Calls a method with each element of the array `params` as one argument. Throws JXError as
  /// `call` does, and the one of JXValue::getSize when `params` is no array.
  JXValue genericCall(const std::string& methodName, const JXValue& params);

  /// Posts a method: starts it on the event loop of its process and returns the id of the task at
  /// once, for `wait`, `isRunning` and `stop`. What the method returns or throws is told to nobody.
  /// Of an object that is no module the method is called, and -1 returned when it has ended.
  ///
  /// Throws JXError with the module's and the method's name: "module destroyed", no single method
  /// that takes these arguments (with the candidates), and what became of the posting. After a
  /// connection was lost the method may run, or not.
  ///
  /// @code
  /// const int task = camera.pCall("film");
  /// while (camera.wait(task, 1000)) std::cout << "still filming\n";
  /// @endcode
  template <class... P>
  int pCall(const std::string& methodName, const P&... arguments);
  /// The same with each element of the array `params` as one argument. There are no callbacks: one
  /// that is given is never called, and a warning logged. Throws also what genericCall does for
  /// `params`.
  int genericPCall(const std::string& methodName, const JXValue& params,
                   int (*callback)(const char*, int, const JXValue&) = nullptr,
                   const char* callbackArgument = nullptr);
  /// The same with arguments at hand.
  int xMetaPCall(const std::string& methodName, const gv::GenericFunctionParameters& parameters);

  /// Waits for the end of a posted call, for so many milliseconds, 0 and less without limit. True
  /// when it still runs then; false when it has ended, and for an id that the module does not know.
  /// The three throw JXError as `call` does, `wait` also when the connection is lost meanwhile.
  bool wait(const int& id, const int& timeoutMs);
  /// Whether a posted call has not ended; for a moment after `wait` it may still say so.
  bool isRunning(const int& id);
  /// Asks a posted call to end, and does not wait for it; an unknown id is only logged there.
  void stop(const int& id);

  /// Notifies: starts a method on the event loop of its process and forgets it; neither its result
  /// nor its error comes back. The method is the one of that name that takes all three arguments,
  /// else the first two, else the first, else none. Returns 0 when it was handed over; -1, with the
  /// candidates in the log, when there is no such method.
  ///
  /// `cache` saves the search: a pair of zeros at first, it then keeps the method and its count of
  /// arguments, and is trusted from then on, whatever the name and the types: arguments that do not
  /// convert are then dropped, or cannot be sent. Keep one for each proxy, method and kinds of
  /// arguments; the caller owns it and guards it. A choice among methods of as many arguments that
  /// depends on the arguments' values is not kept.
  ///
  /// Throws JXError: "module destroyed", a cache that names no method of this module with as many
  /// arguments, and what cannot be sent.
  int pCallNotify(const std::string& methodName, const std::string& first, const JXValue& second,
                  const JXValue& third, std::pair<int, int>* cache = nullptr);

  /// The version of the library that serves the module. Throws as `call` does.
  std::string version();

  /// Always true, and complains in the log: whether the module lives, a call tells.
  bool isValid();
  /// Not implemented, as the log then says: -1, an empty functor, and that text.
  int getInfo(JXModuleInfo& info);
  boost::shared_ptr<JXFunctorBase> getFunctor(const std::string& methodName,
                                              const std::vector<std::string>& parameterTypes);
  std::string remoteBrokerName();
  /// Does nothing: connections belong to the broker's session.
  void destroyConnection();

 private:
  void bind(const boost::shared_ptr<JXBroker>& broker, const std::string& notFoundDetail);

  const std::unique_ptr<JXProxyPrivate> _p;
  gv::WeakObject<gv::Empty> object_;  // constant after construction
};

}  // namespace JX

#include <jxcommon/jxproxy.hxx>
