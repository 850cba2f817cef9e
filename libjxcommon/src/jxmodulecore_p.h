#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include <gvtype/object.h>
#include <jxcommon/api.h>
#include <jxcommon/fwd.h>
#include <jxcommon/jxmethodinfo.h>
#include <boost/shared_ptr.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <boost/thread/tss.hpp>

namespace JX {

/// A posted call. Owned by the thread that runs it (`currentTask`), or, once its method has given a
/// future, by the callback of that future; the table only refers to it.
struct JXPCallTask {
  int id = -1;
  /// Only ever goes to true. Atomic: under the shared lock several threads set and read it.
  std::atomic<bool> stopRequested{false};
  /// Settles when the call has ended, however it did.
  const gv::Promise<void> promise{gv::FutureCallbackType::Sync};
  std::atomic<bool> hasEnded{false};
  /// Counts the call among those of the peer that posted it, if one did.
  std::shared_ptr<const void> held;

  /// Settles the promise, once.
  void end() {
    if (!hasEnded.exchange(true)) promise.setValue();
  }
};

class JXCOMMON_API JXModuleCorePrivate {
 public:
  static std::atomic<int> _taskId;  // the last one given

  JXModuleCorePrivate(std::string moduleName, boost::shared_ptr<JXBroker> broker)
      : name(std::move(moduleName)), parentBroker(std::move(broker)) {}

  /// The id of the next posted call: 1, 2, ... over all modules of the process; after the last one
  /// of its range again from 1 on.
  static int nextTaskId();

  /// Enters a new task of this id in the table.
  JXPCallTask* addTask(int id);
  /// Ends the calling thread's current task, which must have this id: erases its entry and deletes
  /// it.
  void removeTask(int id);
  /// Erases the entry of a task that is no thread's current one; the caller deletes it.
  void removeTaskRemote(int id);

  /// Waits for the end of a task for so many milliseconds; 0 and less mean without limit. True when
  /// it still runs.
  bool wait(const int& id, const int& timeoutPeriod);
  /// Asks a task to stop. Returns at once.
  void stop(int id);
  bool isStopRequired(int id) const;
  bool isRunning(int id) const;

  /// Whether the calling thread runs a posted call of this module, and the id of that one: the
  /// largest number, -1 as an int, where it runs none.
  bool isPCalled() const;
  unsigned getMethodID() const;

  const std::string name;
  const boost::shared_ptr<JXBroker> parentBroker;
  /// True while the module is not published. Atomic: a remote "exit" may meet the owner's.
  std::atomic<bool> stopped{true};
  std::map<int, JXPCallTask*> tasks;  // of tasksMutex
  boost::thread_specific_ptr<JXPCallTask> currentTask;
  mutable boost::shared_mutex tasksMutex;  // guards `tasks`; nothing is called under it
  unsigned pCallMethodId = 0;              // constant after the core's constructor
  JXMethodInfo methodInfo;                 // never filled
  /// 0 until registered. Atomic: written by the registering thread, read by the withdrawing one.
  std::atomic<unsigned> serviceId{0};
};

/// Runs one call of a method in this thread and settles its promise with the outcome; throws
/// nothing. `parameters` come without the instance; with `ownsParameters` they are gone when the
/// promise settles. `module` and `context` live to the end of the call.
void catch_call(const boost::shared_ptr<JXModuleCore>& module, unsigned methodId,
                const gv::AnyFunction& function, gv::GenericFunctionParameters& parameters,
                const gv::Promise<gv::AnyReference>& promise, bool ownsParameters,
                const gv::Object<gv::Empty>& context, unsigned callerThreadId);

/// Runs a posted call in this thread, as its current task, and ends the task, or leaves that to the
/// future that the method has given. Takes the task; throws nothing.
void catch_pcall(const boost::shared_ptr<JXModuleCore>& module, unsigned methodId,
                 JXPCallTask* task, const gv::AnyFunction& function,
                 gv::GenericFunctionParameters& parameters, const gv::Object<gv::Empty>& context,
                 unsigned callerThreadId);

/// Ends a task, which is gone then: the calling thread's current one (`sameThread`), or one that is
/// no thread's.
void finalizeTask(const boost::shared_ptr<JXModuleCore>& module, JXPCallTask* task,
                  bool sameThread);

}  // namespace JX
