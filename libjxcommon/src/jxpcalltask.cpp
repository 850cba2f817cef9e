#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>

#include <gv/eventloop.h>
#include <gv/log.h>
#include <gv/os.h>
#include <gvtype/callcontext.h>
#include <gvtype/callorigin.h>
#include <gvtype/metacall.h>
#include <jxcommon/jxmodulecore.h>
#include <jxcommon/jxproxy.h>
#include <jxerror/jxerror.h>

#include "jxmodulecore_p.h"

namespace JX {
namespace {

using gv::log::Level;

constexpr const char* file = "../libjxcommon/src/jxmodulecore";
constexpr int unknownMethodLine = 595;
constexpr int noNameLine = 611;

const gv::log::Category& category = gv::log::category("jxcommon.jxmodulecore");

// No lock is held here: handlers are foreign code.
void log(Level level, const char* function, const std::string& text) {
  if (category.isEnabled(level)) gv::log::write(level, category, function, "", 0, text);
}

void logNotFound(const char* function, int id) {
  log(Level::Verbose, function,
      "Cant stop task " + std::to_string(id) + " because it is not found.");
}

std::string removalText(int id) {
  return "Error: Asking to remove task " + std::to_string(id);
}

gv::GenericFunctionParameters referencesTo(const std::vector<gv::AnyValue>& values) {
  gv::GenericFunctionParameters references;
  references.reserve(values.size());
  for (const gv::AnyValue& value : values) references.push_back(value.asReference());
  return references;
}

/// A posted call on its way to its thread, or to its end. Where it never gets there, as when the
/// process exits, the task ends all the same.
class PostedCall {
 public:
  explicit PostedCall(boost::shared_ptr<JXModuleCore> module) : module_(std::move(module)) {}
  ~PostedCall() {
    if (task_) finalizeTask(module_, task_, false);
  }
  PostedCall(const PostedCall&) = delete;
  PostedCall& operator=(const PostedCall&) = delete;

  void give(JXPCallTask* task) { task_ = task; }
  JXPCallTask* take() { return std::exchange(task_, nullptr); }

 private:
  const boost::shared_ptr<JXModuleCore> module_;
  JXPCallTask* task_ = nullptr;
};

}  // namespace

// ---- The table

std::atomic<int> JXModuleCorePrivate::_taskId{0};

int JXModuleCorePrivate::nextTaskId() {
  int before = _taskId;
  int next;
  do {
    next = before == std::numeric_limits<int>::max() ? 1 : before + 1;
  } while (!_taskId.compare_exchange_weak(before, next));
  return next;
}

JXPCallTask* JXModuleCorePrivate::addTask(int id) {
  auto task = std::make_unique<JXPCallTask>();
  task->id = id;
  const std::unique_lock lock(tasksMutex);
  tasks[id] = task.get();
  return task.release();
}

void JXModuleCorePrivate::removeTask(int id) {
  const JXPCallTask* const current = currentTask.get();
  bool isFound = false;
  {
    const std::unique_lock lock(tasksMutex);
    if (current) isFound = tasks.erase(id) > 0;
  }
  if (!isFound)
    return log(Level::Error, "removeTask",
               removalText(id) + " but current thread is not assigned to a task.");
  if (current->id != id)
    return log(
        Level::Error, "removeTask",
        removalText(id) + " but current thread is assigned to task " + std::to_string(current->id));
  delete currentTask.release();  // reset() would keep an entry of this module in the thread
}

void JXModuleCorePrivate::removeTaskRemote(int id) {
  bool isFound = false;
  {
    const std::unique_lock lock(tasksMutex);
    isFound = tasks.erase(id) > 0;
  }
  if (!isFound)
    log(Level::Error, "removeTaskRemote",
        "Error: Asking to remove non-existing task " + std::to_string(id));
}

bool JXModuleCorePrivate::wait(const int& id, const int& timeoutPeriod) {
  gv::Future<void> end;
  bool isFound = false;
  {
    const std::shared_lock lock(tasksMutex);
    if (const auto found = tasks.find(id); found != tasks.end()) {
      end = found->second->promise.future();
      isFound = true;
    }
  }
  if (!isFound) {
    logNotFound("wait", id);
    return false;
  }
  if (isPCalled() && currentTask->id == id)
    log(Level::Warning, "wait", name + " :Task " + std::to_string(id) + " waits for its own end");
  return end.wait(timeoutPeriod > 0 ? timeoutPeriod : gv::FutureTimeout_Infinite) ==
         gv::FutureState::Running;
}

void JXModuleCorePrivate::stop(int id) {
  bool isFound = false;
  {
    const std::shared_lock lock(tasksMutex);
    if (const auto found = tasks.find(id); found != tasks.end()) {
      found->second->stopRequested = true;
      isFound = true;
    }
  }
  if (isFound)
    log(Level::Info, "stop", name + " :Task " + std::to_string(id) + " asked to stop");
  else
    logNotFound("stop", id);
}

bool JXModuleCorePrivate::isStopRequired(int id) const {
  const std::shared_lock lock(tasksMutex);
  const auto found = tasks.find(id);
  return found != tasks.end() && found->second->stopRequested;
}

bool JXModuleCorePrivate::isRunning(int id) const {
  const std::shared_lock lock(tasksMutex);
  return tasks.contains(id);
}

bool JXModuleCorePrivate::isPCalled() const {
  return currentTask.get() != nullptr;
}

unsigned JXModuleCorePrivate::getMethodID() const {
  const JXPCallTask* const current = currentTask.get();
  return static_cast<unsigned>(current ? current->id : -1);
}

// ---- Running

void finalizeTask(const boost::shared_ptr<JXModuleCore>& module, JXPCallTask* task,
                  bool sameThread) {
  // A waiter that sees the end may see the entry for a moment more; it holds the future, not the
  // task.
  task->end();
  if (sameThread) return module->d->removeTask(task->id);
  module->d->removeTaskRemote(task->id);
  delete task;
}

namespace {

/// What the end of a method's future does. Waiters are told at once, as they may block every thread
/// of the event loop; the rest is done there.
auto finalizeElsewhere(boost::shared_ptr<JXModuleCore> module, JXPCallTask* task) {
  return [call = std::make_shared<PostedCall>(std::move(module)), task](const auto&) mutable {
    task->end();
    call->give(task);
    gv::getEventLoop()->post([call = std::move(call)]() mutable { call.reset(); });
  };
}

}  // namespace

void catch_pcall(const boost::shared_ptr<JXModuleCore>& module, unsigned methodId,
                 JXPCallTask* task, const gv::AnyFunction& function,
                 gv::GenericFunctionParameters& parameters, const gv::Object<gv::Empty>& context,
                 unsigned callerThreadId) {
  module->d->currentTask.reset(task);
  const gv::Promise<gv::AnyReference> promise(gv::FutureCallbackType::Sync);
  catch_call(module, methodId, function, parameters, promise, true, context, callerThreadId);
  const auto result = promise.future();
  const gv::AnyReference value =
      result.hasValue(gv::FutureTimeout_Infinite) ? result.value() : gv::AnyReference();
  if (!value.isValid() || value.type()->kind != gv::TypeKind::Future)
    return finalizeTask(module, task, true);
  const gv::Promise<void> end;
  try {
    end.future().connect(finalizeElsewhere(module, task), gv::FutureCallbackType::Sync);
  } catch (const std::bad_alloc&) {
    return finalizeTask(module, task, true);
  }
  module->d->currentTask.release();
  gv::handleFuture<void>(value, end);
}

// ---- Posting

int JXModuleCore::_pCall(unsigned methodId, const std::vector<gv::AnyValue>& arguments) {
  int id = JXModuleCorePrivate::nextTaskId();
  while (d->isRunning(id)) id = JXModuleCorePrivate::nextTaskId();  // since the range began anew
  const gv::AnyFunction* function = method(methodId);
  if (!function)
    throw JXError(d->name, "_pCall",
                  "Cant find methodId #" + std::to_string(methodId) + " on module:" + d->name, file,
                  unknownMethodLine);
  const auto self = shared_from_this();
  auto held = gv::CallOrigin::holdOne();
  const auto call = std::make_shared<PostedCall>(self);
  JXPCallTask* const task = d->addTask(id);
  call->give(task);
  task->held = std::move(held);
  gv::getEventLoop()->post([=, function = *function, context = asObject(),
                            caller = gv::os::gettid(), served = gv::CallContext::current(),
                            parameters = referencesTo(arguments).copy()]() mutable {
    const gv::CallContextScope scope(served);
    catch_pcall(self, methodId, call->take(), function, parameters, context, caller);
  });
  return id;
}

int JXModuleCore::pCall(gv::AnyArguments arguments) {
  if (arguments.args.empty())
    throw JXError(d->name, "pCall", "missing function name", file, noNameLine);
  gv::GenericFunctionParameters parameters = referencesTo(arguments.args);
  const auto name = parameters.front().to<std::string>();
  parameters.erase(parameters.begin());
  JXProxy self(asObject(), d->name);
  return self.xMetaPCall(name, parameters);
}

}  // namespace JX
